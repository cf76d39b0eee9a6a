#include "devstore/TLSAuthority.h"

#include <chrono>
#include <utility>

#include "devstore/StateDirectory.h"

namespace tallow::devstore {

namespace {

constexpr const char* kAuthorityName = "tls-ca";
constexpr const char* kServerName = "tls-server";

// The time that the TLS library of a client goes by, which no test can set.
Date machineTime() {
  return Date{
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count()};
}

Identity::Request request(std::string commonName, double days) {
  Identity::Request request;
  request.commonName = std::move(commonName);
  request.notBefore = machineTime().addingSeconds(-kSecondsPerDay);
  request.notAfter = machineTime().addingSeconds(days * kSecondsPerDay);
  return request;
}

}  // namespace

TLSAuthority::TLSAuthority(Identity authority, Identity server)
    : _authority(std::move(authority)), _server(std::move(server)) {}

Result<TLSAuthority> TLSAuthority::open(const StateDirectory& directory) {
  const Result<std::optional<Identity>> keptAuthority = directory.identity(kAuthorityName);
  if (!keptAuthority) return keptAuthority.error();
  const Result<std::optional<Identity>> keptServer = directory.identity(kServerName);
  if (!keptServer) return keptServer.error();
  const Date soon = machineTime().addingSeconds(kSecondsPerDay);
  if (*keptAuthority && *keptServer && (*keptAuthority)->isValidAt(soon) &&
      (*keptServer)->isValidAt(soon) && (*keptServer)->isIssuedBy(**keptAuthority)) {
    return TLSAuthority(**keptAuthority, **keptServer);
  }

  Identity::Request authorityRequest = request("Development Store TLS Authority", 3650);
  authorityRequest.basicConstraints = "critical,CA:TRUE,pathlen:0";
  authorityRequest.keyUsage = "critical,keyCertSign,cRLSign";
  const Identity authority = Identity::make(authorityRequest, nullptr);
  // Some clients refuse server certificates of more than 825 days.
  Identity::Request serverRequest = request("localhost", 820);
  serverRequest.extendedKeyUsage = "serverAuth";
  serverRequest.alternativeNames = "DNS:localhost,IP:127.0.0.1,IP:::1";
  const Identity server = Identity::make(serverRequest, &authority);
  if (std::optional<Error> error = directory.keepIdentity(kAuthorityName, authority)) return *error;
  if (std::optional<Error> error = directory.keepIdentity(kServerName, server)) return *error;
  return TLSAuthority(authority, server);
}

}  // namespace tallow::devstore
