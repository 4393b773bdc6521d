#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "hox/testing/file_calls.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Capability::Configuration {

/// The operations on the saved copy; Start is the start of a service that loads it.
enum class Operation { Save, Import, ImportOfAnotherMachine, Clear, Discard, Export, Start };

const char* nameOf(Operation operation);

/// The answer of a child to an operation.
struct OperationAnswer {
    int code = 0;
    std::string message;
    /// The package of an export.
    std::string package;
    /// The working copy after the operation, in the form of whatIsSaved.
    std::string workingCopy;
};

/// A store that runs its operations in watched child processes. Each starts with the same folder: a
/// saved copy, unsaved changes of every key, a programme guide, and a left-over scratch directory.
class StoreUnderFault {
public:
    /// The saved copy, the working copy and the package each contain `keys` keys besides the state
    /// id.
    explicit StoreUnderFault(int keys);
    ~StoreUnderFault();
    StoreUnderFault(const StoreUnderFault&) = delete;
    StoreUnderFault& operator=(const StoreUnderFault&) = delete;
    StoreUnderFault(StoreUnderFault&&) = delete;
    StoreUnderFault& operator=(StoreUnderFault&&) = delete;

    /// Runs the operation in a child, on the initial folder.
    Hox::Testing::WatchedRun run(Operation operation, Hox::Testing::FileCalls listed,
                                 const std::optional<Hox::Testing::Fault>& fault = std::nullopt,
                                 const Hox::Testing::AtCall& atCall = {});

    /// Runs the operation in a new service on the current folder.
    Hox::Testing::WatchedRun runNext(Operation operation);

    /// All keys and values of the saved copy.
    std::string whatIsSaved() const;

    /// The content of a package, in the same form; throws Hox::Error for an invalid package.
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

    /// Whether the call concerns a file of the store, not a file of a library.
    bool isOwn(const Hox::Testing::FileCall& call) const;

private:
    class Store;

    Hox::Testing::WatchedRun runInNewService(
        const std::function<std::string(const std::filesystem::path&)>& action,
        Hox::Testing::FileCalls listed, const std::optional<Hox::Testing::Fault>& fault);
    void restore() const;

    /// In memory: the folder is rebuilt for each of thousands of children.
    Hox::Testing::TempDir m_dir{"/dev/shm"};
    const std::filesystem::path m_saved = m_dir / "live/conf";
    const std::filesystem::path m_scratch = m_dir / "live/conf.temp";
    const std::filesystem::path m_guide = m_dir / "live/epg";
    const std::filesystem::path m_original = m_dir / "original";
    /// The path of the folder for a new service: at its original path the store of this object has
    /// it locked.
    const std::filesystem::path m_elsewhere = m_dir / "elsewhere";
    std::unique_ptr<Store> m_store;
    std::string m_package;
    std::string m_packageOfAnotherMachine;
    std::string m_oldCopy;
    std::string m_workingCopy;
    std::string m_packaged;
};

/// The answer of a completed run.
OperationAnswer answerOf(const Hox::Testing::WatchedRun& run);

/// Whether every fault is tried at every call (HALVO_ALL_FAULTS), instead of one fault per call.
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
