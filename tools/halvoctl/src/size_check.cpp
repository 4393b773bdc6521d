#include "size_check.h"

#include <string>

#include "check_result.h"
#include "finding_list.h"

namespace Hox::Ctl {

Check sizeCheck(std::size_t estimate) {
    constexpr std::size_t percent = 100;
    constexpr std::size_t nearlyFull = 80;
    const auto text = std::to_string(estimate) + " of " + std::to_string(exportLimit) + " bytes";
    if (estimate > exportLimit) {
        return failed("package", text + ": the configuration cannot be exported");
    }
    return estimate * percent > exportLimit * nearlyFull
               ? warned("package", text + ": soon the configuration cannot be exported")
               : passed("package", text);
}

}  // namespace Hox::Ctl
