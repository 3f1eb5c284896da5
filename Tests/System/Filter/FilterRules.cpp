// Prints the kernel rules of one family, so that the system tests load what the daemon loads.
//
//   filter-rules arm|disarm 4|6    takes a listing of the present rules on standard input
//   filter-rules check 4|6         one command a line, its arguments separated by tabs

#include <iostream>
#include <iterator>
#include <string>
#include <string_view>

#include "PlatformLinuxFilter/NetfilterRules.hpp"

int main(int argc, char** argv) {
  using namespace stillow::platform;
  const std::string_view action = argc == 3 ? argv[1] : "";
  const std::string_view family = argc == 3 ? argv[2] : "";
  if (family != "4" && family != "6") return 64;
  const auto ipFamily = family == "4" ? IPFamily::v4 : IPFamily::v6;
  if (action == "check") {
    for (const auto& command : NetfilterRules::checkCommands(ipFamily)) {
      for (const auto& argument : command) std::cout << argument << '\t';
      std::cout << '\n';
    }
    return 0;
  }
  const std::string listing(std::istreambuf_iterator<char>(std::cin), {});
  const auto installed = InstalledRules::parse(listing);
  if (action == "arm") {
    std::cout << NetfilterRules::armText(ipFamily, installed);
  } else if (action == "disarm") {
    std::cout << NetfilterRules::disarmText(ipFamily, installed);
  } else if (action == "in-place") {
    return NetfilterRules::areInPlace(ipFamily, installed) ? 0 : 1;
  } else {
    return 64;
  }
  return 0;
}
