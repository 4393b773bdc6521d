#include "bus_question.h"

#include <systemd/sd-bus.h>

#include <memory>

namespace Hox::Testing {

namespace {

using Bus = std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)>;
using Message = std::unique_ptr<sd_bus_message, sd_bus_message* (*)(sd_bus_message*)>;

constexpr std::uint64_t second = 1'000'000;

Bus connectTo(const std::string& address) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0) {
        return {nullptr, sd_bus_close_unref};
    }
    Bus result(bus, sd_bus_close_unref);
    if (sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
        sd_bus_set_method_call_timeout(bus, second) < 0 || sd_bus_start(bus) < 0) {
        return {nullptr, sd_bus_close_unref};
    }
    return result;
}

}  // namespace

std::optional<int> askBus(const std::string& address, const BusQuestion& question) {
    const auto bus = connectTo(address);
    if (!bus) {
        return std::nullopt;
    }
    sd_bus_message* call = nullptr;
    if (sd_bus_message_new_method_call(bus.get(), &call, question.destination.c_str(),
                                       question.path.c_str(), question.interface.c_str(),
                                       question.member.c_str()) < 0) {
        return std::nullopt;
    }
    const Message callOwner(call, sd_bus_message_unref);
    if (question.argument &&
        sd_bus_message_append_basic(call, SD_BUS_TYPE_STRING, question.argument->c_str()) < 0) {
        return std::nullopt;
    }
    sd_bus_message* answer = nullptr;
    if (sd_bus_call(bus.get(), call, 0, nullptr, &answer) < 0) {
        return std::nullopt;
    }
    const Message answerOwner(answer, sd_bus_message_unref);
    int value = 0;
    if (sd_bus_message_read_basic(answer, SD_BUS_TYPE_INT32, &value) < 0 &&
        sd_bus_message_read_basic(answer, SD_BUS_TYPE_BOOLEAN, &value) < 0) {
        return std::nullopt;
    }
    return value;
}

}  // namespace Hox::Testing
