#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "hox/testing/file_calls.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Capability::Configuration {

/// What can be asked of the saved copy; Start is the start of a service that loads it.
enum class Operation { Save, Import, ImportOfAnotherMachine, Clear, Discard, Export, Start };

const char* nameOf(Operation operation);

/// What a child answered to an operation.
struct OperationAnswer {
    int code = 0;
    std::string message;
    /// The package of an export.
    std::string package;
    /// The working copy behind the operation, in the form of whatIsSaved.
    std::string workingCopy;
};

/// A store that does its operations in watched children, each of which begins with the same folder:
/// a saved copy, unsaved changes of every key, a programme guide, and a scratch directory that was
/// left there.
class StoreUnderFault {
public:
    /// The saved copy, the working copy and the package each hold so many keys beside the state id.
    explicit StoreUnderFault(int keys);
    ~StoreUnderFault();
    StoreUnderFault(const StoreUnderFault&) = delete;
    StoreUnderFault& operator=(const StoreUnderFault&) = delete;
    StoreUnderFault(StoreUnderFault&&) = delete;
    StoreUnderFault& operator=(StoreUnderFault&&) = delete;

    /// The operation in a child, on the folder as it is at the beginning.
    Hox::Testing::WatchedRun run(Operation operation, Hox::Testing::FileCalls listed,
                                 const std::optional<Hox::Testing::Fault>& fault = std::nullopt,
                                 const Hox::Testing::AtCall& atCall = {});

    /// The operation in a new service on the folder as it lies there.
    Hox::Testing::WatchedRun runNext(Operation operation);

    /// All keys and values that lie in the saved copy.
    std::string whatIsSaved() const;

    /// What lies in a package, in the same form; throws Hox::Error for what is none.
    static std::string contentOf(const std::string& package);

    /// The saved copy before every operation, and after one that succeeds.
    const std::string& oldCopy() const { return m_oldCopy; }
    std::string newCopy(Operation operation) const;

    /// The working copy before every operation, and after one that succeeds.
    const std::string& workingCopy() const { return m_workingCopy; }
    std::string newWorkingCopy(Operation operation) const;

    const std::filesystem::path& saved() const { return m_saved; }
    const std::filesystem::path& scratch() const { return m_scratch; }
    const std::filesystem::path& guide() const { return m_guide; }

    /// Whether the call is about a file of the store, and none of a library's.
    bool isOwn(const Hox::Testing::FileCall& call) const;

private:
    class Store;

    Hox::Testing::WatchedRun runInNewService(
        const std::function<std::string(const std::filesystem::path&)>& action,
        Hox::Testing::FileCalls listed, const std::optional<Hox::Testing::Fault>& fault);
    void restore() const;

    /// In memory: the folder is built anew for each of thousands of children.
    Hox::Testing::TempDir m_dir{"/dev/shm"};
    const std::filesystem::path m_saved = m_dir / "live/conf";
    const std::filesystem::path m_scratch = m_dir / "live/conf.temp";
    const std::filesystem::path m_guide = m_dir / "live/epg";
    const std::filesystem::path m_original = m_dir / "original";
    /// Where a new service finds the folder: the store of this object has it to itself where it is.
    const std::filesystem::path m_elsewhere = m_dir / "elsewhere";
    std::unique_ptr<Store> m_store;
    std::string m_package;
    std::string m_packageOfAnotherMachine;
    std::string m_oldCopy;
    std::string m_workingCopy;
    std::string m_packaged;
};

/// The answer of a run that came to its end.
OperationAnswer answerOf(const Hox::Testing::WatchedRun& run);

/// Whether every fault is to be tried at every call (HALVO_ALL_FAULTS), instead of one at each.
bool allFaults();

/// For failing expectations: "call 12 of save (rename /a/b/data~)".
std::string describe(Operation operation, std::size_t number, const Hox::Testing::FileCall& call);

/// Whether children are slow, so that not every case can be tried.
constexpr bool isSanitized() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    return false;
#endif
}

}  // namespace Hox::Capability::Configuration
