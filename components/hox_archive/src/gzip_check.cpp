#include "gzip_check.h"

#include <zlib.h>

#include <array>
#include <memory>
#include <new>
#include <string>

#include "hox/archive/error/archive_error.h"

namespace Hox::Archive {

namespace {

constexpr int gzipOnly = 16 + MAX_WBITS;
constexpr std::size_t outputBlock = 65536;

bool isGzip(std::string_view bytes) {
    return bytes.substr(0, 2) == "\x1f\x8b";
}

struct StreamEnd {
    void operator()(z_stream* stream) const {
        inflateEnd(stream);
        delete stream;
    }
};

[[noreturn]] void refuse(const std::string& reason) {
    throw ArchiveError("gzip: " + reason, __FILE__, __LINE__);
}

/// Returns the number of bytes of one member; subtracts its decompressed size from maxSize.
std::size_t checkMember(std::string_view bytes, std::uint64_t& maxSize) {
    const std::unique_ptr<z_stream, StreamEnd> stream(new z_stream());
    if (inflateInit2(stream.get(), gzipOnly) != Z_OK) {
        throw std::bad_alloc();
    }
    // zlib does not write to its input.
    stream->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream->avail_in = static_cast<uInt>(bytes.size());
    std::array<Bytef, outputBlock> output;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    int result = Z_OK;
    while (result == Z_OK) {
        stream->next_out = output.data();
        stream->avail_out = output.size();
        result = inflate(stream.get(), Z_NO_FLUSH);
        const std::uint64_t size = output.size() - stream->avail_out;
        if (size > maxSize) {
            refuse("more than the archive may hold");
        }
        maxSize -= size;
    }
    if (result != Z_STREAM_END) {
        refuse(stream->msg == nullptr ? "unexpected end" : stream->msg);
    }
    return bytes.size() - stream->avail_in;
}

}  // namespace

void checkGzip(std::string_view bytes, std::uint64_t maxSize) {
    if (!isGzip(bytes)) {
        return;
    }
    while (isGzip(bytes)) {
        bytes.remove_prefix(checkMember(bytes, maxSize));
    }
    if (bytes.find_first_not_of('\0') != std::string_view::npos) {
        refuse("something else after the end");
    }
}

}  // namespace Hox::Archive
