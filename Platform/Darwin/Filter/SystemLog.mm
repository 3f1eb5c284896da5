#include "PlatformDarwinFilter/SystemLog.hpp"

#include <os/log.h>

namespace stillow::platform {

void writeSystemLog(std::string_view line) {
  os_log(OS_LOG_DEFAULT, "%{public}.*s", static_cast<int>(line.size()), line.data());
}

}  // namespace stillow::platform
