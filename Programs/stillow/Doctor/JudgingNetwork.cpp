#include <cmath>

#include "StillowClient/TimeText.hpp"
#include "StillowCore/ValidationHosts.hpp"
#include "StillowDoctor/Judging.hpp"

/// The way out: network, trusted authorities, clock, and the two hosts that tests connect to.
namespace stillow::doctor {

namespace {

using authority::DiagnosticConnectionOutcome;
using platform::DiagnosticExchange;
using Failure = DiagnosticExchange::Failure;

/// A clock that is further off counts as wrong. Certificates and end times of a day can bear more,
/// but nothing that keeps a clock right lets it go so far.
constexpr double clockErrorMaxSeconds = 300;
/// The server's clock comes in whole seconds, and its answer takes some.
constexpr double clockErrorUnnoticedSeconds = 60;

bool answered(const DiagnosticExchange& exchange) {
  return exchange.outcome == DiagnosticConnectionOutcome::answered;
}

constexpr const char* reinstallTrustStore =
    "Install it anew: sudo apt install --reinstall ca-certificates";

std::string interfacesText(const authority::NetworkPathSnapshot& path) {
  std::string text;
  for (const std::string& name : path.interfaces) text += (text.empty() ? "" : ", ") + name;
  return text;
}

constexpr const char* setClock = "Set it, or let the network do so: sudo timedatectl set-ntp true";

}  // namespace

void Judgement::judgeNetwork() {
  network();
  trustStore();
  clock();
  portal();
}

void Judgement::network() {
  constexpr auto name = check::network;
  if (!seen_.network) return notChecked(name, seen_.network.error());
  if (seen_.network->isSatisfied) {
    return ok(name, "There is a way out over " + interfacesText(*seen_.network) +
                        (seen_.network->usesVPN ? ", through a VPN." : "."));
  }
  if (answered(seen_.control)) return ok(name, "The control host is reached.");
  fail(name, "There is no network: no interface that is up has a default route.",
       "Plug in the cable, join a wireless network, or look at: ip route");
}

void Judgement::trustStore() {
  constexpr auto name = check::trustStore;
  if (!seen_.trustStore) return notChecked(name, seen_.trustStore.error());
  const TrustStoreObservation& store = *seen_.trustStore;
  if (!store.isReadable) {
    return fail(name,
                "The list of trusted certificate authorities cannot be read: " + store.path + ".",
                reinstallTrustStore);
  }
  if (store.certificates == 0) {
    return fail(name, "No certificate authority is trusted: " + store.path + " holds none.",
                reinstallTrustStore);
  }
  ok(name, std::to_string(store.certificates) +
               (store.certificates == 1 ? " authority is" : " authorities are") + " trusted.");
}

void Judgement::clock() {
  constexpr auto name = check::clock;
  const bool wasOutside = seen_.control.failure == Failure::certificateOutsideItsTime;
  const DiagnosticExchange& told =
      wasOutside && seen_.controlWhateverTheTime ? *seen_.controlWhateverTheTime : seen_.control;
  if (told.serverDate) {
    const double ahead = seen_.controlAnsweredAt - *told.serverDate;
    const std::string error = "This machine’s clock is " + client::durationText(std::abs(ahead)) +
                              (ahead > 0 ? " ahead of" : " behind") + " the control host’s.";
    if (!(std::abs(ahead) <= clockErrorMaxSeconds)) return fail(name, error, setClock);
    if (std::abs(ahead) > clockErrorUnnoticedSeconds) return warn(name, error, setClock);
    return ok(name, std::string("It agrees with the control host’s") +
                        (seen_.clockIsSynchronized ? ", and the network keeps it right."
                                                   : "; nothing keeps it right, though."));
  }
  if (wasOutside) {
    return fail(name,
                "By this machine’s clock (" + core::description(seen_.controlAnsweredAt) +
                    ") the control host’s certificate is not valid.",
                setClock);
  }
  if (seen_.clockIsSynchronized) return ok(name, "The network keeps it right.");
  notChecked(name, {.reason = "No host told the time, and nothing keeps the clock right."});
}

void Judgement::portal() {
  constexpr auto name = check::portal;
  const DiagnosticExchange& control = seen_.control;
  const std::string host(core::ValidationHosts::control);
  const std::string signIn =
      "Open any page in a browser and sign in to the network. If there is nothing to sign in to, a "
      "proxy or a program on this machine answers for others: exempt " +
      host + " and " + std::string(core::ValidationHosts::probed) + " from it.";
  if (answered(control)) {
    return ok(name, "Nobody answers in the place of others.");
  }
  if (control.failure == Failure::none) {
    return fail(name,
                "Somebody else answers for " + host + " (HTTP status " +
                    std::to_string(control.httpStatus) +
                    "): a network that wants a sign-in first, or a proxy.",
                signIn);
  }
  if (control.failure == Failure::certificateNotTrusted) {
    return fail(name,
                "Somebody answers for " + host +
                    " with a certificate that is not trusted: a network that wants a sign-in "
                    "first, or a program that reads along.",
                signIn, {check::trustStore});
  }
  notChecked(name, {.reason = "The control host could not be reached."});
}

void Judgement::judgeHosts() {
  controlHost();
  probedHost();
}

void Judgement::failedExchange(std::string_view name, std::string_view host,
                               const DiagnosticExchange& exchange, Causes causes) {
  const std::string subject(host);
  const std::string detail = exchange.detail.empty() ? "" : " (" + exchange.detail + ")";
  switch (exchange.failure) {
    case Failure::none:
      return fail(name, "Another host answers for " + subject + ".",
                  "Find out who does: a proxy, a filter of names, or an entry in /etc/hosts.",
                  causes);
    case Failure::nameNotResolved:
      return fail(name, "The name " + subject + " cannot be resolved.",
                  "Look at the name servers in /etc/resolv.conf. A filter of names (DNS) on this "
                  "machine or in the router has to let it through.",
                  causes);
    case Failure::notConnected:
    case Failure::tookTooLong:
      return fail(name, "No connection to " + subject + " comes about" + detail + ".",
                  "See whether a browser reaches other sites. If so, a firewall may be in the way, "
                  "or the host is down: try again later.",
                  causes);
    case Failure::cut:
      return fail(name, "The connection to " + subject + " is cut" + detail + ".",
                  "Something on the way ends it: another filter on this machine, a firewall, the "
                  "provider.",
                  causes);
    case Failure::certificateOutsideItsTime:
      return fail(name, "The certificate of " + subject + " has run out or is not valid yet.",
                  "The clock is right, so that is for those who run the host to put right; try "
                  "again later.",
                  causes);
    case Failure::certificateNotTrusted:
      return fail(name, "The certificate of " + subject + " is not trusted" + detail + ".",
                  "A proxy or a program that reads along may answer in its place: exempt it.",
                  causes);
    case Failure::trustStoreUnusable:
      return fail(name, "The list of trusted authorities cannot be used" + detail + ".",
                  reinstallTrustStore, causes);
    case Failure::other:
      break;
  }
  fail(name, "The connection to " + subject + " failed" + detail + ".", "Try again.", causes);
}

void Judgement::controlHost() {
  constexpr auto name = check::controlHost;
  constexpr auto host = core::ValidationHosts::control;
  if (answered(seen_.control)) {
    return ok(name, std::string(host) + " answers, as it always has to.");
  }
  switch (seen_.control.failure) {
    case Failure::none:
      return failedExchange(name, host, seen_.control, {check::portal});
    case Failure::certificateOutsideItsTime:
      return failedExchange(name, host, seen_.control, {check::clock});
    case Failure::certificateNotTrusted:
    case Failure::trustStoreUnusable:
      return failedExchange(name, host, seen_.control, {check::trustStore, check::portal});
    default:
      break;
  }
  if (filterHoldsTraffic()) {
    return failedExchange(name, host, seen_.control, {check::network, check::filter});
  }
  failedExchange(name, host, seen_.control, {check::network});
}

void Judgement::probedHost() {
  constexpr auto name = check::probedHost;
  constexpr auto host = core::ValidationHosts::probed;
  const std::string subject(host);
  const auto blocked = probedHostIsBlocked();
  const DiagnosticExchange& probed = seen_.probed;
  if (blocked.value_or(false)) {
    if (probed.outcome == DiagnosticConnectionOutcome::connectionFailed) {
      return ok(name, subject + " is blocked at the moment, and does not answer.");
    }
    return fail(name, subject + " is to be blocked at the moment, and answers.",
                "The filter does not drop what it has to. Restart it, and look into its log.",
                {check::filter, check::rules, check::directive});
  }
  if (answered(probed))
    return ok(name, subject + " answers, as it has to while nothing blocks it.");
  // What keeps both away is the network's doing or the clock's.
  if (!answered(seen_.control) && seen_.control.failure == probed.failure) {
    return failedExchange(name, host, probed, {check::controlHost});
  }
  const bool isDropped = probed.failure == Failure::cut || probed.failure == Failure::notConnected;
  if (isDropped && !blocked) {
    return warn(name, "Connections to " + subject + " are dropped.",
                "That is as it should be while the daemon tests the block. Look again in half a "
                "minute, or as root, who can tell: sudo stillow doctor");
  }
  if (isDropped) {
    return fail(name,
                "Connections to " + subject +
                    " are dropped although nothing of ours blocks it, so a test of the block "
                    "would pass without proving anything.",
                "Find what drops them: another filter on this machine, a firewall, a filter of "
                "names.");
  }
  failedExchange(name, host, probed,
                 {check::network, check::trustStore, check::clock, check::portal});
}

}  // namespace stillow::doctor
