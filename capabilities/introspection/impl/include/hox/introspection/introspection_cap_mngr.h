#pragma once

#include "hox/introspection/introspection_service_impl.h"
#include "hox/service_common/capability/icap_mngr.h"

namespace Hox::Capability::Introspection {

/// The capability with which an operator inspects a running service. It has no tree and is not
/// published.
class IntrospectionCapMngr : public Hox::Service::ICapMngr {
public:
    int id() const override;

    /// Registers the service on the context's server builder.
    void initCapability(Hox::Service::LumServiceCtx& ctx) override;

private:
    IntrospectionServiceImpl m_service;
};

}  // namespace Hox::Capability::Introspection
