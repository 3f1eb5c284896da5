#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "StillowDoctor/Finding.hpp"
#include "StillowDoctor/Observations.hpp"

namespace stillow::doctor {

/// What `seen` means: one finding for each check, causes before what follows from them. Depends on
/// nothing else.
[[nodiscard]] Report judge(const Observations& seen);

/// The names of the checks, in the order in which they are reported.
namespace check {
inline constexpr std::string_view network = "network";
inline constexpr std::string_view trustStore = "trust-store";
inline constexpr std::string_view clock = "clock";
inline constexpr std::string_view portal = "portal";
inline constexpr std::string_view daemonUnit = "daemon-unit";
inline constexpr std::string_view filterUnit = "filter-unit";
inline constexpr std::string_view signature = "signature";
inline constexpr std::string_view socket = "socket";
inline constexpr std::string_view daemon = "daemon";
inline constexpr std::string_view stateDirectory = "state-directory";
inline constexpr std::string_view checkpoints = "checkpoints";
inline constexpr std::string_view directive = "directive";
inline constexpr std::string_view filter = "filter";
inline constexpr std::string_view rules = "rules";
inline constexpr std::string_view controlHost = "control-host";
inline constexpr std::string_view probedHost = "probed-host";
inline constexpr std::string_view blocking = "blocking";
}  // namespace check

/// A report in the making.
class Judgement {
 public:
  explicit Judgement(const Observations& seen) : seen_(seen) {}

  void judgeNetwork();  ///< network, trust store, clock, portal
  void judgeMachine();  ///< units, signature, socket, daemon, state, directive, filter, rules
  void judgeHosts();    ///< control host, probed host
  void judgeBlocking();

  [[nodiscard]] Report report() const;

 private:
  using Causes = std::initializer_list<std::string_view>;

  void network();
  void trustStore();
  void clock();
  void portal();
  void unit(std::string_view name, const Observed<UnitObservation>& unit, std::string_view whose);
  void signature();
  void socket();
  void daemon();
  void stateDirectory();
  void checkpoints();
  void directive();
  void filter();
  void rules();
  void controlHost();
  void probedHost();

  void ok(std::string_view check, std::string meaning);
  void notChecked(std::string_view check, const NotObserved& why, Causes causes = {});
  /// Judged as wrong because of the first of `causes` that is; else for itself.
  void warn(std::string_view check, std::string meaning, std::string action, Causes causes = {});
  void fail(std::string_view check, std::string meaning, std::string action, Causes causes = {});
  void add(Finding finding, Causes causes);
  void failedExchange(std::string_view check, std::string_view host,
                      const platform::DiagnosticExchange& exchange, Causes causes);

  [[nodiscard]] const Finding* find(std::string_view check) const;
  [[nodiscard]] bool isWrong(std::string_view check) const;
  [[nodiscard]] bool isQueueHeldByStranger() const;
  /// New connections may wait for a filter that does not answer. Without one they pass.
  [[nodiscard]] bool filterHoldsTraffic() const;
  /// A Commitment is to be enforced at this moment, as far as anybody knows.
  [[nodiscard]] std::optional<bool> mustBlock() const;
  /// The filter is to drop connections to the probed host. None: only root can tell.
  [[nodiscard]] std::optional<bool> probedHostIsBlocked() const;

  const Observations& seen_;
  Report report_;
};

}  // namespace stillow::doctor
