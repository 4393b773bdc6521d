#include "hox/observer_tree/data_tree_val.h"

#include <fmt/format.h>

#include "hox/cpputil/type/demangle.h"

namespace Hox::ObserverTree {

DataTreeVal::DataTreeVal(google::protobuf::Any packed)
    : m_anyValue(std::make_unique<google::protobuf::Any>(std::move(packed))) {}

const google::protobuf::Any* DataTreeVal::toAny() const {
    if (!m_anyValue) {
        m_anyValue = m_toAny();
    }
    return m_anyValue.get();
}

void DataTreeVal::throwHeldTypeDiffers(const std::type_info& held, const std::string& wanted) {
    throw Hox::CppUtil::BadCast(fmt::format("Unable to cast DataTreeVal from {} to {}",
                                            Hox::CppUtil::demangle(held), wanted),
                                __FILE__, __LINE__);
}

void DataTreeVal::throwPackedTypeDiffers(const std::string& wanted) {
    throw Hox::CppUtil::BadCast(fmt::format("Expected {} but found {}", wanted,
                                            Hox::CppUtil::demangle(typeid(google::protobuf::Any))),
                                __FILE__, __LINE__);
}

void DataTreeVal::throwUndecodable(const std::string& wanted) {
    throw DataTreeValError(fmt::format("Unable to decode the packed {}", wanted), __FILE__,
                           __LINE__);
}

}  // namespace Hox::ObserverTree
