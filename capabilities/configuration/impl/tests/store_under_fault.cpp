#include "store_under_fault.h"

#include <spdlog/sinks/stdout_sinks.h>

#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "configuration_store.h"
#include "hox/archive/archive.h"
#include "hox/configuration/conf_obstree_handler.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/observer_tree/persistence/node_data_file_hndlr.h"
#include "saved_files.h"
#include "system_identity.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::UnaryOps;
using Hox::Testing::Fault;
using Hox::Testing::FileCall;
using Hox::Testing::FileCalls;
using Hox::Testing::WatchedRun;

namespace {

/// Writes warnings and errors to standard error, which the runs capture; it has no thread.
class StderrLogsystem : public Hox::Log::ILogsystem {
public:
    std::shared_ptr<spdlog::logger> getLogger(const std::string& name) override {
        return getLogger(name, spdlog::level::warn);
    }
    std::shared_ptr<spdlog::logger> getLogger(const std::string& name,
                                              spdlog::level::level_enum level) override {
        auto& logger = m_loggers[name];
        if (!logger) {
            logger = std::make_shared<spdlog::logger>(name, m_sink);
            logger->set_level(level);
            logger->set_pattern("[%l] %v");
        }
        return logger;
    }
    void shutdown() override { m_loggers.clear(); }

private:
    std::shared_ptr<spdlog::sinks::stderr_sink_st> m_sink =
        std::make_shared<spdlog::sinks::stderr_sink_st>();
    std::map<std::string, std::shared_ptr<spdlog::logger>> m_loggers;
};

std::string packageOfAnotherMachine(const fs::path& dir) {
    SystemIdentity foreign = readSystemIdentity();
    using Hox::SystemAPI::HeadendSWVariant;
    foreign.variant =
        foreign.variant == HeadendSWVariant::QAM ? HeadendSWVariant::COFDM : HeadendSWVariant::QAM;
    foreign.partNumber += 1;
    fs::create_directories(dir);
    writePackageIdentity(foreign, dir);
    return Configuration::pack(dir);
}

/// All values of a saved copy, as a tree that has loaded them dumps them.
std::string dumpOf(const fs::path& saved) {
    std::string text;
    for (const auto& [key, changes] : Hox::ObserverTree::NodeDataFileHndlr().readNodeData(saved)) {
        text +=
            "key: \"" + key + "\" value: " + changes.at(0).current->toAny()->DebugString() + "\n";
    }
    return text;
}

}  // namespace

/// A tree with a handler, as in the service.
class StoreUnderFault::Store {
public:
    explicit Store(const fs::path& saved)
        : m_handler(m_tree, m_lock, std::make_shared<std::mutex>(), saved.string(), "head-1") {
        m_handler.registerObsTreeHandlers();
        m_handler.addObservers();
    }

    std::string content() { return m_tree.dumpDataTree(); }

    void update(Update& update) {
        update.request.set_lastcapconfstateid(m_stateId);
        const auto result =
            m_tree.callApiOp<UnaryOps::UPDATE, Api::UpdateCapConfReq, Api::UpdateCapConfResp>(
                "/sys/conf", update.request);
        m_stateId = result.message->capconfstateid();
        EXPECT_TRUE(result.status.isOk()) << result.status.errorMessage();
    }

    OperationAnswer call(Operation operation, const std::string& package) {
        if (operation == Operation::Export) {
            return exportPackage();
        }
        Api::UpdateSysConfReq request;
        auto& type = *request.mutable_update_type();
        if (operation == Operation::Save) {
            type.set_savechanges(true);
        } else if (operation == Operation::Clear) {
            type.set_clearconfiguration(true);
        } else if (operation == Operation::Discard) {
            type.set_discardchanges(true);
        } else {
            type.set_sysconfdata(package);
        }
        const auto result =
            m_tree.callApiOp<UnaryOps::UPDATE, Api::UpdateSysConfReq, Api::UpdateSysConfResp>(
                "/sys/conf/.data.", request);
        return {static_cast<int>(result.status.statusCode()), result.status.errorMessage(), "",
                content()};
    }

private:
    OperationAnswer exportPackage() {
        const auto result =
            m_tree.callApiOp<UnaryOps::READ, Api::GetSysConfReq, Api::GetSysConfResp>(
                "/sys/conf/.data.", {});
        return {static_cast<int>(result.status.statusCode()), result.status.errorMessage(),
                result.message->sysconfdata(), content()};
    }

    std::unique_ptr<std::unique_lock<std::mutex>> m_lock;
    Hox::ObserverTree::ObserverTree m_tree;
    ConfObstreeHandler m_handler;
    std::string m_stateId;
};

namespace {

/// Each part, preceded by its length.
std::string pack(const OperationAnswer& answer) {
    std::string text;
    for (const auto& part :
         {std::to_string(answer.code), answer.message, answer.package, answer.workingCopy}) {
        text += std::to_string(part.size()) + ":" + part;
    }
    return text;
}

/// Names and values differ between the kinds of copies, but some names are common.
Update copyOf(const std::string& kind, int keys) {
    Update update("tuner");
    update.full();
    for (int key = 0; key < keys; ++key) {
        const std::string name = key % 2 == 0 ? "both" : kind;
        update.set("/g" + std::to_string(key % 5) + "/" + name + std::to_string(key), kind);
    }
    return update;
}

}  // namespace

const char* nameOf(Operation operation) {
    switch (operation) {
        case Operation::Save:
            return "Save";
        case Operation::Import:
            return "Import";
        case Operation::ImportOfAnotherMachine:
            return "ImportOfAnotherMachine";
        case Operation::Clear:
            return "Clear";
        case Operation::Discard:
            return "Discard";
        case Operation::Export:
            return "Export";
        case Operation::Start:
            return "Start";
    }
    return "";
}

StoreUnderFault::StoreUnderFault(int keys) {
    Hox::Log::setLogsystem(std::make_unique<StderrLogsystem>());
    m_store = std::make_unique<Store>(m_saved);
    const auto put = [this, keys](const char* kind) {
        Update update = copyOf(kind, keys);
        m_store->update(update);
    };
    put("packaged");
    m_packaged = m_store->content();
    Hox::Testing::runWatched([this] { return pack(m_store->call(Operation::Save, "")); },
                             FileCalls::None);
    m_package = answerOf(Hox::Testing::runWatched(
                             [this] { return pack(m_store->call(Operation::Export, "")); },
                             FileCalls::None))
                    .package;
    m_packageOfAnotherMachine = packageOfAnotherMachine(m_dir / "foreign");
    put("old");
    Hox::Testing::runWatched([this] { return pack(m_store->call(Operation::Save, "")); },
                             FileCalls::None);
    fs::rename(m_saved, m_original);
    put("new");
    m_workingCopy = m_store->content();
    restore();
    m_oldCopy = whatIsSaved();
}

StoreUnderFault::~StoreUnderFault() = default;

void StoreUnderFault::restore() const {
    for (const auto& path : {m_saved, m_scratch, m_guide}) {
        fs::remove_all(path);
    }
    fs::copy(m_original, m_saved, fs::copy_options::recursive);
    write(m_scratch / "left/over", "from a crash");
    write(m_guide / "guide/today", "news");
}

WatchedRun StoreUnderFault::run(Operation operation, FileCalls listed,
                                const std::optional<Fault>& fault,
                                const Hox::Testing::AtCall& atCall) {
    restore();
    if (operation == Operation::Start) {
        return runInNewService(
            [](const fs::path& saved) {
                return pack({0, "", "", Store(saved).content()});
            },
            listed, fault);
    }
    const std::string& package =
        operation == Operation::ImportOfAnotherMachine ? m_packageOfAnotherMachine : m_package;
    return Hox::Testing::runWatched(
        [this, operation, &package] { return pack(m_store->call(operation, package)); }, listed,
        fault, atCall);
}

WatchedRun StoreUnderFault::runNext(Operation operation) {
    return runInNewService(
        [this, operation](const fs::path& saved) {
            return pack(Store(saved).call(operation, m_package));
        },
        FileCalls::None, std::nullopt);
}

WatchedRun StoreUnderFault::runInNewService(
    const std::function<std::string(const fs::path&)>& action, FileCalls listed,
    const std::optional<Fault>& fault) {
    const auto move = [](const fs::path& from, const fs::path& to) {
        for (const char* name : {"conf", "conf.temp", "epg"}) {
            if (fs::exists(from / name)) {
                fs::rename(from / name, to / name);
            }
        }
    };
    fs::create_directories(m_elsewhere);
    move(m_saved.parent_path(), m_elsewhere);
    auto run = Hox::Testing::runWatched([this, &action] { return action(m_elsewhere / "conf"); },
                                        listed, fault);
    move(m_elsewhere, m_saved.parent_path());
    return run;
}

std::string StoreUnderFault::whatIsSaved() const {
    return dumpOf(m_saved);
}

std::string StoreUnderFault::contentOf(const std::string& package) {
    const Hox::Testing::TempDir dir("/dev/shm");
    std::string bytes = package;
    Hox::Archive::unpackBuffer({reinterpret_cast<std::uint8_t*>(bytes.data()), bytes.size()},
                               dir.path());
    return dumpOf(dir.path());
}

bool StoreUnderFault::isOwn(const FileCall& call) const {
    return call.path.rfind(m_dir.path().string(), 0) == 0;
}

std::string StoreUnderFault::newCopy(Operation operation) const {
    switch (operation) {
        case Operation::Save:
            return m_workingCopy;
        case Operation::Import:
            return m_packaged;
        case Operation::Clear:
            return "";
        case Operation::ImportOfAnotherMachine:
        case Operation::Discard:
        case Operation::Export:
        case Operation::Start:
            break;
    }
    return m_oldCopy;
}

std::string StoreUnderFault::newWorkingCopy(Operation operation) const {
    switch (operation) {
        case Operation::Import:
        case Operation::Clear:
        case Operation::Discard:
        case Operation::Start:
            return newCopy(operation);
        case Operation::Save:
        case Operation::Export:
        case Operation::ImportOfAnotherMachine:
            break;
    }
    return m_workingCopy;
}

OperationAnswer answerOf(const WatchedRun& run) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    const std::string text = run.answer.value();
    while (start < text.size()) {
        const std::size_t colon = text.find(':', start);
        const std::size_t size = std::stoul(text.substr(start, colon - start));
        parts.push_back(text.substr(colon + 1, size));
        start = colon + 1 + size;
    }
    return {std::stoi(parts.at(0)), parts.at(1), parts.at(2), parts.at(3)};
}

bool allFaults() {
    const char* value = std::getenv("HALVO_ALL_FAULTS");
    return value != nullptr && *value != '\0';
}

std::string describe(Operation operation, std::size_t number, const Hox::Testing::FileCall& call) {
    return "call " + std::to_string(number) + " of " + nameOf(operation) + " (" + call.name + " " +
           call.path + ")";
}

}  // namespace Hox::Capability::Configuration
