#include "hox/cpputil/resource/resource_handle.h"

namespace Hox::CppUtil {

template class ResourceHandle<unsigned int>;

}  // namespace Hox::CppUtil
