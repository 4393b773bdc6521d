#include "hox/system_api/models.h"

#include <algorithm>
#include <exception>

#include "hox/system_api/serial_records.h"
#include "model_table.h"

namespace Hox::SystemAPI {

namespace {

constexpr int machineType = 0;

}  // namespace

std::optional<ModelInfo> findModel(const std::filesystem::path& serialFile) {
    try {
        const auto records = readSerialRecords(serialFile);
        const auto machine =
            std::find_if(records.begin(), records.end(),
                         [](const SerialRecord& record) { return record.type == machineType; });
        if (machine == records.end()) {
            return std::nullopt;
        }
        const auto& table = modelTable();
        const auto model =
            std::find_if(table.begin(), table.end(), [&machine](const ModelInfo& candidate) {
                return candidate.partNumber == machine->partNumber;
            });
        return model == table.end() ? std::nullopt : std::make_optional(*model);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace Hox::SystemAPI
