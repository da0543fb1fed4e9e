#include <glog/logging.h>
#include <unistd.h>

#include "Loggers.h"

std::function<void(int)> bench::glogStatement(const std::string& file) {
    dup2(STDOUT_FILENO, STDERR_FILENO);
    google::InitGoogleLogging("bench");
    google::SetLogDestination(google::GLOG_INFO, file.c_str());
    FLAGS_alsologtostderr = true;
    FLAGS_logbuflevel = -1;
    return [](int number) { LOG(INFO) << "Monitor launcher: screen lock status " << number; };
}
