#pragma once

#include "hox/cpputil/resource/resource_handle.h"

namespace Hox::Service::Discovery {

/// Owns a request: dropping the handle undoes the request. Afterwards none of its callbacks runs
/// any more; one that is running is waited for, unless it drops the handle itself.
///
/// May be dropped on any thread, also after its client has lost the daemon or is destroyed, but not
/// while the thread holds a lock that a callback of the client may want.
using Handle = CppUtil::ResourceHandle<unsigned int>;

}  // namespace Hox::Service::Discovery
