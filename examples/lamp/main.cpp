#include <hox/service_common/service_initializer/run_service.h>

#include "lamp_cap_mngr.h"

int main(int argc, char** argv) {
    return Hox::Service::runService(argc, argv, Hox::Service::capabilities<LampCapMngr>());
}
