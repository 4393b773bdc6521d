#pragma once

#include <google/protobuf/descriptor.h>

#include <memory>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/resource/resource_handle.h"
#include "hox/observer_tree/builders/async_grpc_server_obs_tree_builder.h"
#include "hox/observer_tree/builders/check_bindings.h"
#include "hox/observer_tree/grpc/grpc_server_observer_tree.h"
#include "hox/service_common/capability/icap_mngr.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"
#include "hox/service_common/service_initializer/service_kind.h"
#include "hox/service_common/service_initializer/service_visibility.h"

namespace Hox::Service {

/// A capability that serves one observer tree by a generated gRPC service. It publishes itself,
/// owns the tree and its queue thread, and needs only id() and registerHandlers().
///
/// The handlers run on the queue thread with the capability's mutex held. They must not use a
/// member of the derived class after it has been destroyed: a class with such members calls
/// endServing() first in its destructor.
template <typename GrpcService>
class TreeCapMngr : public ICapMngr {
public:
    using Polling = ObserverTree::AsyncGRPCServerObsTreeBuilder::Polling;

    /// One capability of the process should poll; see AsyncGRPCServerObsTreeBuilder.
    explicit TreeCapMngr(Polling polling = Polling::Polls) : m_polling(polling) {}

    /// Ends serving.
    ~TreeCapMngr() override = default;
    TreeCapMngr(const TreeCapMngr&) = delete;
    TreeCapMngr(TreeCapMngr&&) = delete;
    TreeCapMngr& operator=(const TreeCapMngr&) = delete;
    TreeCapMngr& operator=(TreeCapMngr&&) = delete;

    /// Publishes the capability on the loopback interface, binds the service to a new tree and
    /// registers the handlers. Throws what publishCapability() and registerHandlers() throw, and
    /// ObsTreeBuildError if a method of the service is not bound as checkBindings() demands.
    void initCapability(LumServiceCtx& ctx) override {
        const auto serviceName = ObserverTree::ServiceTraits<GrpcService>::fullName();
        ObserverTree::checkBindings(*google::protobuf::DescriptorPool::generated_pool(),
                                    serviceName);
        m_publication = ctx.getServiceHelper().publishCapability(
            publishedType(ctx), static_cast<int>(ServiceKind::Grpc),
            static_cast<int>(ServiceVisibility::Private), serviceName, {}, "lo");
        m_obsTreeBuilder = std::make_unique<ObserverTree::AsyncGRPCServerObsTreeBuilder>(
            &ctx.getServerBuilder(), m_mutex, m_polling,
            m_polling == Polling::Polls ? ctx.getStandbyPoller() : nullptr);
        m_asyncGrpcServerHandler = m_obsTreeBuilder->asyncGrpcServerHandler();
        m_observerTree =
            std::make_unique<ObserverTree::GrpcServerObserverTree>(m_asyncGrpcServerHandler);
        m_obsTreeBuilder->template buildServerObsTree<GrpcService>(*m_observerTree);
        registerHandlers(*m_observerTree, ctx);
    }

    /// Starts serving.
    void proxyObsTreesReady(LumServiceCtx& /*ctx*/) override { startServing(); }

protected:
    /// Registers the handlers of the service's methods at their keys. Main thread, the capability's
    /// mutex held, no server yet.
    virtual void registerHandlers(ObserverTree::ObserverTree& tree, LumServiceCtx& ctx) = 0;

    /// The catalogue number under which the capability is published: id(), unless overridden.
    virtual int publishedType(const LumServiceCtx& /*ctx*/) const { return id(); }

    /// The tree, from registerHandlers() on until endServing(). Used with the capability's mutex
    /// held.
    ObserverTree::ObserverTree& tree() { return *m_observerTree; }

    /// Starts the queue thread, once; called in serverStarted() or later. Asserts that
    /// initCapability() has run.
    void startServing() {
        HOX_ASSERT(m_asyncGrpcServerHandler.get());
        m_asyncGrpcServerHandler->startCompletionQueueThread();
    }

    /// Takes the capability off the network, ends the queue thread and destroys the tree. Only in a
    /// destructor, without the capability's mutex, when the server has been shut down. Harmless if
    /// repeated.
    void endServing() {
        m_publication = {};
        m_obsTreeBuilder.reset();
        m_asyncGrpcServerHandler.reset();
        m_observerTree.reset();
    }

private:
    const Polling m_polling;
    std::unique_ptr<ObserverTree::GrpcServerObserverTree> m_observerTree;
    std::shared_ptr<ObserverTree::AsyncGrpcServerHandler> m_asyncGrpcServerHandler;
    std::unique_ptr<ObserverTree::AsyncGRPCServerObsTreeBuilder> m_obsTreeBuilder;
    CppUtil::ResourceHandle<unsigned int> m_publication;
};

}  // namespace Hox::Service
