#include "StillowDoctor/Gathering.hpp"

#include "StillowCore/ValidationHosts.hpp"
#include "StillowIPC/StillowDaemonService.hpp"

namespace stillow::doctor {

Observations gather(const Instruments& with) {
  using Service = ipc::StillowDaemonService;
  using platform::CertificateTimes;
  Observations seen;

  with.progress("Looking at this machine …");
  seen.hasServiceManager = with.hasServiceManager();
  seen.daemonUnit = with.unit(Service::machServiceName);
  seen.filterUnit = with.unit(Service::filterBundleIdentifier);
  seen.signature = with.signature();
  seen.socket = with.socket();
  seen.status = with.status();
  if (!seen.status) seen.reach = with.reach(seen.status.error());
  seen.stateDirectory = with.stateDirectory();
  seen.checkpoints = with.checkpoints();
  seen.directive = with.directive();
  seen.now = with.now();
  seen.queue = with.queue();
  seen.rules = with.rules();
  seen.network = with.network();
  seen.trustStore = with.trustStore();
  seen.clockIsSynchronized = with.clockIsSynchronized();

  with.progress("Connecting to the two test hosts …");
  const std::string control(core::ValidationHosts::control);
  seen.control = with.exchange(control, CertificateTimes::verified);
  if (seen.control.failure == platform::DiagnosticExchange::Failure::certificateOutsideItsTime) {
    seen.controlWhateverTheTime = with.exchange(control, CertificateTimes::ignored);
  }
  seen.controlAnsweredAt = with.now();
  seen.probed =
      with.exchange(std::string(core::ValidationHosts::probed), CertificateTimes::verified);

  if (seen.status) {
    with.progress("Testing that the filter really blocks …");
    seen.validation = with.validate();
  }
  return seen;
}

}  // namespace stillow::doctor
