#include "StillowClient/PassThrough.hpp"

#include "StillowCore/JSONText.hpp"

namespace stillow::client {

namespace {

// The one call that is made.
constexpr std::string_view head = R"({"jsonrpc":"2.0","id":1,)";

}  // namespace

std::optional<ipc::DaemonOperation> operationNamed(std::string_view method) {
  for (const auto& [operation, name] : core::Coding<ipc::DaemonOperation>::names) {
    if (name == method) return operation;
  }
  return std::nullopt;
}

std::string resultLine(const ipc::SharedBytes& result) {
  return std::string(head) + R"("result":)" + (result ? *result : std::string("null")) + "}";
}

std::string errorLine(const ipc::DaemonError& error) {
  const ipc::PlatformError form = error.platformError();
  std::string line(head);
  line += R"("error":{"code":)";
  core::json::appendInteger(line, form.code);
  line += R"(,"message":)";
  core::json::appendString(line, form.description);
  if (form.payload) line += R"(,"data":)" + *form.payload;
  return line + "}}";
}

std::string unknownMethodLine() {
  return std::string(head) + R"("error":{"code":-32601,"message":"Method not found"}})";
}

}  // namespace stillow::client
