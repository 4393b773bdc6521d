#include "confirm_record.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <google/protobuf/util/json_util.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <system_error>
#include <utility>

#include "confirm_records.h"
#include "ctl_error.h"
#include "input_text.h"
#include "json_text.h"
#include "output_file.h"

namespace Hox::Ctl {

using LinuxCppUtil::OwnedFileDescriptor;

namespace {

constexpr mode_t folderRights = 0700;

std::string contentFile(const std::string& folder) {
    return folder + "/record.json";
}

[[noreturn]] void failWriting(const std::string& path) {
    const int error = errno;
    throw CtlError(ExitCode::Usage,
                   "cannot write " + path + ": " + std::generic_category().message(error));
}

/// Makes one folder that outlives a loss of power. Returns false if it exists.
bool makeFolder(const std::filesystem::path& path) {
    if (::mkdir(path.c_str(), folderRights) != 0) {
        if (errno == EEXIST) {
            return false;
        }
        failWriting(path);
    }
    flushFolder(path.parent_path());
    return true;
}

void makeFolders(const std::filesystem::path& path) {
    if (std::filesystem::is_directory(path)) {
        return;
    }
    makeFolders(path.parent_path());
    makeFolder(path);
}

std::string newId() {
    constexpr unsigned ids = 0x10000;
    return fmt::format("{:04x}", std::random_device()() % ids);
}

bool isId(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

OwnedFileDescriptor openFolder(const std::string& path) {
    return LinuxCppUtil::ownFileDescriptor(
        ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// Takes the lock of the folder. Returns false if another process has it.
bool tryLock(int folder) {
    if (::flock(folder, LOCK_EX | LOCK_NB) == 0) {
        return true;
    }
    if (errno != EWOULDBLOCK) {
        failWriting("the lock of the record");
    }
    return false;
}

/// Waits for the lock of the record with this id; the user may end the wait.
void waitForLock(int folder, const std::string& id, const Interrupt& interrupt,
                 std::chrono::milliseconds time) {
    constexpr std::chrono::milliseconds pause(50);
    const auto deadline = std::chrono::steady_clock::now() + time;
    while (!tryLock(folder)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            throw CtlError(ExitCode::Unreachable, "another process works on the change " + id);
        }
        if (interrupt.waitFor(pause)) {
            throw CtlError(ExitCode::Interrupted, "");
        }
    }
}

/// Whether the open folder is still the one at this path.
bool isAt(int folder, const std::string& path) {
    struct stat open {};
    struct stat there {};
    return ::fstat(folder, &open) == 0 && ::stat(path.c_str(), &there) == 0 &&
           open.st_ino == there.st_ino;
}

/// Removes the records without content on which nobody works. Who makes one at this moment notices
/// that and makes another one.
void removeRemains(const std::string& root) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(root, error), end; !error && entry != end;
         entry.increment(error)) {
        const auto folder = entry->path().string();
        const auto lock = openFolder(folder);
        std::error_code ignored;
        if (lock && tryLock(*lock) && !std::filesystem::exists(contentFile(folder), ignored)) {
            std::filesystem::remove_all(folder, ignored);
        }
    }
}

}  // namespace

ConfirmRecord::ConfirmRecord(std::string folder, OwnedFileDescriptor lock)
    : m_folder(std::move(folder)), m_lock(std::move(lock)) {}

ConfirmRecord::~ConfirmRecord() {
    if (!m_isKept) {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
}

std::unique_ptr<ConfirmRecord> ConfirmRecord::create(const Surroundings& surroundings) {
    constexpr int attempts = 1000;
    const auto root = confirmFolder(surroundings);
    makeFolders(root);
    removeRemains(root);
    for (int attempt = 0; attempt < attempts; ++attempt) {
        const auto folder = root + "/" + newId();
        if (!makeFolder(folder)) {
            continue;
        }
        auto lock = openFolder(folder);
        if (!lock && errno != ENOENT) {
            failWriting(folder);
        }
        if (lock && tryLock(*lock) && isAt(*lock, folder)) {
            return std::unique_ptr<ConfirmRecord>(new ConfirmRecord(folder, std::move(lock)));
        }
    }
    throw CtlError(ExitCode::Usage, "there are too many records in " + root);
}

std::unique_ptr<ConfirmRecord> ConfirmRecord::open(const Surroundings& surroundings,
                                                   const std::string& id,
                                                   std::chrono::milliseconds time) {
    const auto folder = confirmFolder(surroundings) + "/" + id;
    auto lock = isId(id) ? openFolder(folder) : nullptr;
    if (!lock) {
        return nullptr;
    }
    waitForLock(*lock, id, surroundings.interrupt, time);
    auto content = read(folder);  // it may have been removed meanwhile
    if (!content) {
        return nullptr;
    }
    std::unique_ptr<ConfirmRecord> record(new ConfirmRecord(folder, std::move(lock)));
    record->m_content = std::move(*content);
    record->m_isKept = true;
    return record;
}

std::optional<Confirmation> ConfirmRecord::read(const std::string& folder) {
    const auto path = contentFile(folder);
    std::ifstream file(path);
    if (!file.is_open() && errno == ENOENT) {
        return std::nullopt;
    }
    const auto text = readInput(file, "-");
    Confirmation content;
    const auto parsed = google::protobuf::util::JsonStringToMessage(text, &content);
    if (!file.is_open() || !parsed.ok()) {
        throw CtlError(ExitCode::Usage, path + " cannot be read",
                       "its folder has the packages of before and after the change");
    }
    content.set_id(std::filesystem::path(folder).filename());
    return content;
}

std::string ConfirmRecord::id() const {
    return std::filesystem::path(m_folder).filename();
}

void ConfirmRecord::keep(Confirmation content) {
    content.set_id(id());
    const JsonText json(*Confirmation::descriptor()->file()->pool());
    writeWholeFile(contentFile(m_folder), json.indented(content));
    m_content = std::move(content);
    m_isKept = true;
}

std::string ConfirmRecord::formerPackage() const {
    std::istringstream unused;
    return readInput(unused, m_folder + "/old.hpk");
}

std::string ConfirmRecord::newPackage() const {
    std::istringstream unused;
    return readInput(unused, m_folder + "/new.hpk");
}

void ConfirmRecord::keepFormerPackage(const std::string& bytes) const {
    writeWholeFile(m_folder + "/old.hpk", bytes);
}

void ConfirmRecord::keepNewPackage(const std::string& bytes) const {
    writeWholeFile(m_folder + "/new.hpk", bytes);
}

void ConfirmRecord::remove() {
    // At first what makes it count, so that nobody finds a part of it.
    if (::unlink(contentFile(m_folder).c_str()) != 0) {
        failWriting(m_folder);
    }
    flushFolder(m_folder);
    m_isKept = false;
}

}  // namespace Hox::Ctl
