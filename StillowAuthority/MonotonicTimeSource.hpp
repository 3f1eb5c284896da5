#pragma once

namespace stillow::authority {

/// Time that only moves forward: it counts while the machine sleeps and starts anew at boot.
class MonotonicTimeSource {
 public:
  virtual ~MonotonicTimeSource() = default;
  /// Seconds since some moment of this boot. May be called from any thread.
  [[nodiscard]] virtual double seconds() const = 0;

 protected:
  MonotonicTimeSource() = default;
  MonotonicTimeSource(const MonotonicTimeSource&) = default;
  MonotonicTimeSource& operator=(const MonotonicTimeSource&) = default;
};

}  // namespace stillow::authority
