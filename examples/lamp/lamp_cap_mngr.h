// A capability: lamps that clients switch and watch.
#pragma once

#include <hox/service_common/capability/check_key_part.h>
#include <hox/service_common/capability/lum_capabilities.h>
#include <hox/service_common/capability/tree_cap_mngr.h>

#include "lamp.grpc.pb.h"

class LampCapMngr : public Hox::Service::TreeCapMngr<Lamp::LampService> {
public:
    int id() const override { return static_cast<int>(Hox::Service::CapabilityType::Reserved); }

protected:
    void registerHandlers(Hox::ObserverTree::ObserverTree& tree,
                          Hox::Service::LumServiceCtx& /*ctx*/) override {
        using namespace Hox::ObserverTree;
        tree.registerUnaryOpHandler<UnaryOps::UPDATE, Lamp::SetLampReq, Lamp::SetLampResp>(
            "/lamps",
            [](const Lamp::SetLampReq& req,
               DataTree& data) -> UnaryHandlerReturnType<Lamp::SetLampResp> {
                auto resp = std::make_unique<Lamp::SetLampResp>();
                if (auto bad = Hox::Service::checkKeyPart(req.name()); !bad.isOk()) {
                    return {std::move(resp), bad};
                }
                data.insert_or_assign("/lamps/" + req.name(),
                                      std::make_shared<const DataTreeVal>(req.lamp()));
                return {std::move(resp), Status()};
            });
        tree.registerDefaultObserveHandler("/lamps");
    }
};
