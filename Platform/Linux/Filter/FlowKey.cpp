#include "PlatformLinuxFilter/FlowKey.hpp"

#include <cstring>
#include <random>
#include <span>

namespace stillow::platform {

namespace {

/// The finalizer of SplitMix64: every input bit reaches every output bit.
constexpr std::uint64_t mixed(std::uint64_t value) noexcept {
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9;
  value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
  return value ^ (value >> 31);
}

std::uint64_t randomSeed() {
  std::random_device device;
  return (std::uint64_t{device()} << 32) | device();
}

std::uint64_t word(const FlowKey::AddressBytes& bytes, std::size_t offset) noexcept {
  std::uint64_t value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

}  // namespace

filtering::FlowAddress FlowKey::remoteAddress() const noexcept {
  const std::span bytes(destination);
  return isIPv6 ? filtering::FlowAddress::fromIPv6(bytes)
                : filtering::FlowAddress::fromIPv4(bytes.first<4>());
}

FlowKeyHash::FlowKeyHash() : FlowKeyHash(randomSeed()) {}

FlowKeyHash::FlowKeyHash(std::uint64_t seed) noexcept {
  for (auto& factor : factors_) factor = mixed(seed += 0x9e3779b97f4a7c15);
}

std::size_t FlowKeyHash::operator()(const FlowKey& key) const noexcept {
  // Each step is mixed with a secret before the next word comes in, so that differences in two
  // words cannot be chosen to cancel out.
  std::uint64_t hash = factors_[0];
  hash = mixed(hash ^ word(key.source, 0)) + factors_[1];
  hash = mixed(hash ^ word(key.source, 8)) + factors_[2];
  hash = mixed(hash ^ word(key.destination, 0)) + factors_[3];
  hash = mixed(hash ^ word(key.destination, 8)) + factors_[4];
  const std::uint64_t rest =
      (std::uint64_t{key.sourcePort} << 32) | (std::uint64_t{key.destinationPort} << 16) |
      (std::uint64_t{static_cast<std::uint8_t>(key.protocol)} << 1) | std::uint64_t{key.isIPv6};
  return static_cast<std::size_t>(mixed(hash ^ rest) ^ factors_[5]);
}

}  // namespace stillow::platform
