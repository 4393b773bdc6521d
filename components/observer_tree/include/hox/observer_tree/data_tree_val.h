#pragma once

#include <google/protobuf/any.pb.h>
#include <google/protobuf/message.h>

#include <any>
#include <functional>
#include <memory>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "hox/cpputil/error/bad_cast.h"
#include "hox/cpputil/type/type_name.h"
#include "hox/observer_tree/data_tree_val_error.h"

namespace Hox::ObserverTree {

/// The immutable value at a key: a typed message, or a packed one from the wire or from a file.
///
/// Each form is made from the other on first use and kept, so the value is read under its tree's
/// data lock, or on the thread whose copy of the change set keeps it alive. Always held by
/// std::shared_ptr<const DataTreeVal>.
class DataTreeVal {
    template <typename T>
    using IfTypedMessage =
        std::enable_if_t<std::is_base_of_v<google::protobuf::Message, std::decay_t<T>> &&
                         !std::is_same_v<google::protobuf::Any, std::decay_t<T>>>;

public:
    /// Keeps a copy of the message, or the message itself if it can be moved from.
    template <typename T, typename = IfTypedMessage<T>>
    explicit DataTreeVal(T&& message)
        : m_typedValue(std::forward<T>(message)),
          m_toAny([this] { return pack<std::decay_t<T>>(); }) {}

    /// Keeps the packed message unchanged and undecoded.
    explicit DataTreeVal(google::protobuf::Any packed);

    virtual ~DataTreeVal() = default;

    // Neither copyable nor movable: m_toAny refers to this object.
    DataTreeVal(const DataTreeVal&) = delete;
    DataTreeVal(DataTreeVal&&) = delete;
    DataTreeVal& operator=(const DataTreeVal&) = delete;
    DataTreeVal& operator=(DataTreeVal&&) = delete;

    /// The message as a T, valid as long as this value. A packed message is decoded once. Throws
    /// BadCast if the value has another type, DataTreeValError if its bytes cannot be decoded.
    template <typename T>
    const T& get() const;

    /// The packed message, valid as long as this value. A typed message is packed once.
    const google::protobuf::Any* toAny() const;

    /// Whether persistence skips this value.
    bool notPersisted() const { return m_notPersisted; }

private:
    template <typename T>
    std::unique_ptr<google::protobuf::Any> pack() const;

    [[noreturn]] static void throwHeldTypeDiffers(const std::type_info& held,
                                                  const std::string& wanted);
    [[noreturn]] static void throwPackedTypeDiffers(const std::string& wanted);
    [[noreturn]] static void throwUndecodable(const std::string& wanted);

    bool m_notPersisted = false;
    mutable std::any m_typedValue;
    mutable std::unique_ptr<google::protobuf::Any> m_anyValue;
    std::function<std::unique_ptr<google::protobuf::Any>()> m_toAny;
};

template <typename T>
const T& DataTreeVal::get() const {
    if (m_typedValue.has_value()) {
        const T* typed = std::any_cast<T>(&m_typedValue);
        if (typed == nullptr) {
            throwHeldTypeDiffers(m_typedValue.type(), getTemplateTypeName<T>());
        }
        return *typed;
    }
    if (!m_anyValue->Is<T>()) {
        throwPackedTypeDiffers(getTemplateTypeName<T>());
    }
    T decoded;
    if (!m_anyValue->UnpackTo(&decoded)) {
        throwUndecodable(getTemplateTypeName<T>());
    }
    return m_typedValue.emplace<T>(std::move(decoded));
}

template <typename T>
std::unique_ptr<google::protobuf::Any> DataTreeVal::pack() const {
    auto packed = std::make_unique<google::protobuf::Any>();
    packed->PackFrom(*std::any_cast<T>(&m_typedValue));
    return packed;
}

}  // namespace Hox::ObserverTree
