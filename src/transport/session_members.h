// The automation members that every session object has, bound once for all
// of them. A protocol's table is its own members after these:
//
//   const InterfaceInfo kIPOP3("IPOP3", IID_IPOP3,
//       SessionMembers<CPOP3>(kPop3SessionIds, {Method(1, "Connect", ...), ...}));
#pragma once

#include <utility>
#include <vector>

#include "automation/fields.h"
#include "transport/mailer.h"

namespace kv {

// Each protocol numbers the shared members its own way.
struct SessionDispids {
    DISPID ErrCode, ErrDesc, IsError, Busy, Abort, EnableEvents, EnableLogging, LogFilePath, ClearLog,
        ServerResponse, ClientRequest, Connected, Timeout, ServerName, PortNumber, UserName, Password, AuthMethod,
        SSL;
};

template <class C>
std::vector<automation::MemberInfo> SessionMembers(const SessionDispids& id,
                                                   std::vector<automation::MemberInfo> own) {
    using namespace automation;
    using M = GenericMailer;
    std::vector<MemberInfo> all{
        FieldGet<C, &M::ErrCode>(id.ErrCode, "ErrCode"),
        FieldGet<C, &M::ErrDesc>(id.ErrDesc, "ErrDesc"),
        FieldGet<C, &M::IsError>(id.IsError, "IsError"),
        FieldGet<C, &M::Busy>(id.Busy, "Busy"),
        Method(id.Abort, "Abort", VT_BOOL, BindOn<C, &M::AbortCall>()),
        Property(id.EnableEvents, "EnableEvents", VT_BOOL, BindOn<C, &M::get_EnableEvents>(),
                 BindOn<C, &M::put_EnableEvents>()),
        Field<C, &M::EnableLogging>(id.EnableLogging, "EnableLogging"),
        Field<C, &M::LogFilePath, nullptr, &M::LogPathChanged>(id.LogFilePath, "LogFilePath"),
        Method(id.ClearLog, "ClearLog", VT_BOOL, BindOn<C, &M::ClearLogCall>()),
        FieldGet<C, &M::ServerResponse>(id.ServerResponse, "ServerResponse"),
        FieldGet<C, &M::ClientRequest>(id.ClientRequest, "ClientRequest"),
        FieldGet<C, &M::Connected>(id.Connected, "Connected"),
        Field<C, &M::TimeoutSeconds>(id.Timeout, "Timeout"),
        Field<C, &M::ServerName>(id.ServerName, "ServerName"),
        Field<C, &M::PortNumber>(id.PortNumber, "PortNumber"),
        Field<C, &M::UserName>(id.UserName, "UserName"),
        Field<C, &M::Password>(id.Password, "Password"),
        Field<C, &M::AuthMethod, NonNegative>(id.AuthMethod, "AuthMethod"),
        PropertyRef(id.SSL, "SSL", VT_DISPATCH, BindOn<C, &M::get_SSL>(), BindOn<C, &M::putref_SSL>()),
    };
    for (MemberInfo& m : own) all.push_back(std::move(m));
    return all;
}

}  // namespace kv
