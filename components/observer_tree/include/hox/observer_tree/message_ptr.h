#pragma once

#include <google/protobuf/arena.h>
#include <google/protobuf/message.h>

#include <memory>
#include <type_traits>

namespace Hox::ObserverTree {

/// Frees a message, and with a message that lies in an arena that arena, which belongs to it alone.
struct MessageDeleter {
    MessageDeleter() = default;

    /// Takes messages over from their usual owner; implicit, so that std::make_unique gives one.
    template <typename T>
    MessageDeleter(const std::default_delete<T>& /*usual*/) {}

    /// Frees the message, with its arena if it lies in one.
    void operator()(google::protobuf::Message* message) const {
        auto* const arena = message->GetArena();
        if (arena == nullptr) {
            delete message;
        } else {
            delete arena;
        }
    }
};

/// Owns a message and its memory. Made from the usual owner of a message and turned into one, so
/// that who has no need of arenas uses std::unique_ptr<T> alone.
template <typename T>
class MessagePtr : public std::unique_ptr<T, MessageDeleter> {
    using Base = std::unique_ptr<T, MessageDeleter>;

public:
    using Base::Base;
    using Base::operator=;

    /// Gives the message away; one that lies in an arena is copied and freed.
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

/// An empty message that shares few large blocks of memory with all its parts: for messages of many
/// parts, which are made and freed several times faster that way.
template <typename T>
MessagePtr<T> makeArenaMessage() {
#if defined(__SANITIZE_THREAD__)
    // The headers of protobuf lay messages out differently for ThreadSanitizer than in the library.
    return std::make_unique<T>();
#else
    google::protobuf::ArenaOptions options;
    options.start_block_size = 2048;
    options.max_block_size = 65536;
    auto arena = std::make_unique<google::protobuf::Arena>(options);
    MessagePtr<T> message(google::protobuf::Arena::CreateMessage<T>(arena.get()));
    static_cast<void>(arena.release());  // the message's from here on
    return message;
#endif
}

}  // namespace Hox::ObserverTree
