#include "hox/service_common/service_initializer/service_initialize_assert.h"

#include <spdlog/logger.h>

#include <string>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"

namespace Hox::Service {

void initAssertion(bool abortOnFailure) {
    auto& assertion = CppUtil::getAssertion();
    assertion.setAbortOnFailure(abortOnFailure);
    assertion.setOutputHandler([](const std::string& report) {
        Log::getLogsystem()
            ->getLogger("assertion_handler", spdlog::level::err)
            ->log(Log::here(), spdlog::level::err, "{}", report);
    });
}

}  // namespace Hox::Service
