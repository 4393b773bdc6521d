#include "entry_copy.h"

#include <archive_entry.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>

#include "hox/cpputil/assertion/assertion.h"

namespace Hox::Archive {

namespace {

int writeHeaderBelow(::archive* out, ::archive_entry* entry, std::string directory) {
    const char* name = archive_entry_pathname(entry);
    if (name == nullptr) {
        archive_set_error(out, EILSEQ, "Entry without a name that the locale knows");
        return ARCHIVE_FAILED;
    }
    if (directory.empty() || directory.back() != '/') {
        directory += '/';
    }
    archive_entry_set_pathname(entry, (directory + name).c_str());
    return archive_write_header(out, entry);
}

}  // namespace

int copyEntries(::archive* in, ::archive* out, const std::filesystem::path& directory) {
    HOX_ASSERT(in != nullptr);
    HOX_ASSERT(out != nullptr);
    while (true) {
        ::archive_entry* entry = nullptr;
        int result = archive_read_next_header(in, &entry);
        if (result == ARCHIVE_EOF) {
            archive_read_close(in);
            return archive_write_close(out);
        }
        if (result != ARCHIVE_OK) {
            return result;
        }
        result = writeHeaderBelow(out, entry, directory.string());
        if (result >= ARCHIVE_OK) {
            result = copyData(in, out);
        }
        if (result < ARCHIVE_OK) {
            return result;
        }
    }
}

int copyData(::archive* ar, ::archive* aw) {
    HOX_ASSERT(ar != nullptr);
    HOX_ASSERT(aw != nullptr);
    while (true) {
        const void* block = nullptr;
        std::size_t length = 0;
        std::int64_t offset = 0;
        const int result = archive_read_data_block(ar, &block, &length, &offset);
        if (result == ARCHIVE_EOF) {
            return ARCHIVE_OK;
        }
        if (result != ARCHIVE_OK) {
            return result;
        }
        if (archive_write_data_block(aw, block, length, offset) != ARCHIVE_OK) {
            return 1;
        }
    }
}

}  // namespace Hox::Archive
