#include "hox/service_common/capability/icap_mngr.h"

namespace Hox::Service {

ICapMngr::ICapMngr() : m_mutex(std::make_shared<std::mutex>()) {}

void ICapMngr::addOptions(cxxopts::Options& /*options*/) {}

void ICapMngr::onDiscoveryEvent(const Hox::Service::Discovery::Status& /*status*/) {}

void ICapMngr::initCapability(LumServiceCtx& /*ctx*/) {}

void ICapMngr::serverStarted(LumServiceCtx& /*ctx*/) {}

void ICapMngr::proxyObsTreesReady(LumServiceCtx& /*ctx*/) {}

}  // namespace Hox::Service
