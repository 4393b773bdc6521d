#include "grpc/client_text.h"

namespace Hox::ObserverTree {

namespace {

/// Whether the byte continues a UTF-8 character.
bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

}  // namespace

std::string clientText(const std::string& text) {
    if (text.size() <= maxClientText) {
        return text;
    }
    std::size_t end = maxClientText;
    while (end > 0 && isContinuation(text[end])) {
        --end;
    }
    return text.substr(0, end);
}

}  // namespace Hox::ObserverTree
