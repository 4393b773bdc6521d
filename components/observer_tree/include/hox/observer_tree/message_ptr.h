#pragma once

#include <google/protobuf/arena.h>
#include <google/protobuf/message.h>

#include <memory>
#include <type_traits>

namespace Hox::ObserverTree {

/// Frees a message. For a message in an arena it frees the arena, which belongs to that message
/// only.
struct MessageDeleter {
    MessageDeleter() = default;

    /// Takes over messages from their usual owner; implicit, so that std::make_unique can
    /// initialise a MessagePtr.
    template <typename T>
    MessageDeleter(const std::default_delete<T>& /*usual*/) {}

    /// Frees the message, with its arena if it has one.
    void operator()(google::protobuf::Message* message) const {
        auto* const arena = message->GetArena();
        if (arena == nullptr) {
            delete message;
        } else {
            delete arena;
        }
    }
};

/// Owns a message and its memory. Converts from and to the usual owner of a message, so code
/// without arenas can use std::unique_ptr<T> only.
template <typename T>
class MessagePtr : public std::unique_ptr<T, MessageDeleter> {
    using Base = std::unique_ptr<T, MessageDeleter>;

public:
    using Base::Base;
    using Base::operator=;

    /// Releases the message; a message in an arena is copied and freed.
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<T*, U*>>>
    operator std::unique_ptr<U>() && {
        if (*this == nullptr || (*this)->GetArena() == nullptr) {
            return std::unique_ptr<U>(this->release());
        }
        std::unique_ptr<U> copy((*this)->New());
        copy->CopyFrom(**this);
        this->reset();
        return copy;
    }
};

/// Creates an empty message whose parts all share a few large memory blocks. For messages of many
/// parts, which are created and freed several times faster this way.
template <typename T>
MessagePtr<T> makeArenaMessage() {
#if defined(__SANITIZE_THREAD__)
    // Under ThreadSanitizer the headers of protobuf lay out messages differently than the library.
    return std::make_unique<T>();
#else
    google::protobuf::ArenaOptions options;
    options.start_block_size = 2048;
    options.max_block_size = 65536;
    auto arena = std::make_unique<google::protobuf::Arena>(options);
    MessagePtr<T> message(google::protobuf::Arena::CreateMessage<T>(arena.get()));
    static_cast<void>(arena.release());  // the message owns it from here on
    return message;
#endif
}

}  // namespace Hox::ObserverTree
