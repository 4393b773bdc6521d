#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "common/comparison.h"
#include "common/require.h"
#include "common/sample_configuration.h"
#include "common/temporary_folder.h"
#include "hox/archive/archive.h"
#include "hox/configuration/conf_obstree_handler.h"
#include "hox/linutils/raii_filedescriptors.h"
#include "store_benchmark/naive_store.h"

namespace fs = std::filesystem;

namespace Hox::Benchmarks {

namespace {

namespace Conf = Hox::Capability::Configuration;
namespace Tree = Hox::ObserverTree;
using Tree::UnaryOps;

constexpr std::size_t noLimit = std::size_t{1} << 30U;

std::string pack(const fs::path& folder) {
    const auto [bytes, size] = Hox::Archive::packToBuffer(Hox::Archive::ArchiveFormat::TarGz,
                                                          folder, noLimit, true, false);
    const std::unique_ptr<std::uint8_t[]> owned(bytes);
    return {reinterpret_cast<const char*>(bytes), size};
}

/// The store of the configuration capability without its server.
class Store {
public:
    explicit Store(const fs::path& folder)
        : m_handler(m_tree, m_noLock, std::make_shared<std::mutex>(), folder.string(), "bench") {
        m_handler.registerObsTreeHandlers();
        m_handler.addObservers();
    }

    void fill(int keys) {
        const auto request = fullUpdate(sampleSlice("settings"), keys);
        const auto result = m_tree.callApiOp<UnaryOps::UPDATE, Conf::Api::UpdateCapConfReq,
                                             Conf::Api::UpdateCapConfResp>("/sys/conf", request);
        require(result.status.isOk(), "The store refused the keys");
    }

    void save() {
        m_update.mutable_update_type()->set_savechanges(true);
        update();
    }
    void discard() {
        m_update.mutable_update_type()->set_discardchanges(true);
        update();
    }
    void importPackage(const std::string& package) {
        m_update.mutable_update_type()->set_sysconfdata(package);
        update();
    }

    std::string exportPackage() {
        auto result =
            m_tree.callApiOp<UnaryOps::READ, Conf::Api::GetSysConfReq, Conf::Api::GetSysConfResp>(
                "/sys/conf/.data.", {});
        require(result.status.isOk(), "The store could not be packed");
        return std::move(*result.message->mutable_sysconfdata());
    }

private:
    void update() {
        const auto result =
            m_tree.callApiOp<UnaryOps::UPDATE, Conf::Api::UpdateSysConfReq,
                             Conf::Api::UpdateSysConfResp>("/sys/conf/.data.", m_update);
        require(result.status.isOk(), "The store refused an operation");
    }

    Tree::ObserverTree m_tree;
    std::unique_ptr<std::unique_lock<std::mutex>> m_noLock;
    Conf::ConfObstreeHandler m_handler;
    Conf::Api::UpdateSysConfReq m_update;
};

/// Writes the same files with the same calls, and nothing else.
class Bare {
public:
    explicit Bare(fs::path folder) : m_folder(std::move(folder)) {
        fs::create_directories(m_folder);
    }

    void save(const Tree::ChangeSetType& changes) const {
        const fs::path scratch = makeScratch();
        NaiveStore::save(changes, scratch);
        putInForce(scratch);
    }

    void importPackage(std::string& package) const {
        const fs::path scratch = makeScratch();
        Hox::Archive::unpackBuffer(
            {reinterpret_cast<std::uint8_t*>(package.data()), package.size()}, scratch);
        NaiveStore::load(scratch);
        putInForce(scratch);
    }

private:
    fs::path makeScratch() const {
        fs::path scratch = m_folder.string() + ".temp";
        fs::remove_all(scratch);
        fs::create_directories(scratch);
        return scratch;
    }

    void putInForce(const fs::path& scratch) const {
        const auto folder =
            Hox::LinuxCppUtil::openFileDescriptor(scratch, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        require(::syncfs(*folder) == 0, "The files could not be flushed");
        require(::renameat2(0, scratch.c_str(), 0, m_folder.c_str(), RENAME_EXCHANGE) == 0,
                "The folders could not be exchanged");
        fs::remove_all(scratch);
        ::sync();
    }

    fs::path m_folder;
};

void run(const fs::path& parent, int keys, int rounds) {
    const std::string count = std::to_string(keys) + " keys: ms";
    const bool isLarge = keys >= 10000;
    Comparison saving("save, " + count, isLarge ? 0.75 : 0.8);
    Comparison discarding("discard, " + count, isLarge ? 1.0 : 1.2);
    Comparison exporting("export, " + count, 1.2);
    Comparison importing("import, " + count, 1.3);
    const TemporaryFolder folder(parent);
    const fs::path saved = folder / "ours";
    Store store(saved);
    const Bare bare(folder / "theirs");
    store.fill(keys);
    store.save();
    const auto content = Tree::NodeDataFileHndlr().readNodeData(saved);
    std::string package = pack(saved);
    // The limit of a package is between a thousand and ten thousand keys.
    const bool fits = !isLarge;
    for (int round = 0; round < rounds; ++round) {
        saving.measure([&] { store.save(); }, [&] { bare.save(content); });
        discarding.measure([&] { store.discard(); }, [&] { NaiveStore::load(saved); });
        if (fits) {
            exporting.measure([&] { store.exportPackage(); }, [&] { pack(saved); });
        }
        importing.measure([&] { store.importPackage(package); },
                          [&] { bare.importPackage(package); });
    }
    saving.print();
    discarding.print();
    if (fits) {
        exporting.print();
    }
    importing.print();
}

}  // namespace

}  // namespace Hox::Benchmarks

int main(int argc, char** argv) {
    if (argc > 3) {
        std::fputs("Usage: halvo-package-benchmark [<folder> [<rounds>]]\n", stderr);
        return EXIT_FAILURE;
    }
    try {
        Hox::Benchmarks::Comparison::printHeading("store", "bare");
        for (const int keys : {100, 1000, 10000}) {
            Hox::Benchmarks::run(argc > 1 ? argv[1] : "/dev/shm", keys,
                                 argc > 2 ? std::stoi(argv[2]) : 9);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
