#include "conf_client.h"

namespace Hox::Ctl {

namespace Api = Hox::Capability::Configuration::Api;

namespace {

std::string confPath(const std::string& method) {
    return "/Hox.Capability.Configuration.Api.ConfigurationService/" + method;
}

}  // namespace

std::string ConfClient::exportPackage() const {
    Api::GetSysConfResp response;
    m_connection.call(confPath("getSysConf"), Api::GetSysConfReq(), response);
    return response.sysconfdata();
}

void ConfClient::importPackage(const std::string& package) const {
    Update all;
    all.set_sysconfdata(package);
    update(all);
}

void ConfClient::save() const {
    Update all;
    all.set_savechanges(true);
    update(all);
}

void ConfClient::revert() const {
    Update all;
    all.set_discardchanges(true);
    update(all);
}

void ConfClient::clear() const {
    Update all;
    all.set_clearconfiguration(true);
    update(all);
}

void ConfClient::update(const Update& update) const {
    Api::UpdateSysConfReq request;
    *request.mutable_update_type() = update;
    Api::UpdateSysConfResp response;
    m_connection.call(confPath("updateSysConf"), request, response);
}

}  // namespace Hox::Ctl
