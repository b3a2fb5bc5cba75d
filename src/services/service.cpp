#include <povzel/service.h>

BoolType ServiceInit() {
  return 0;
}
BoolType ServiceIsService() {
  return 0;
}
BoolType ServiceStarting() {
  return 0;
}
BoolType ServiceStopping() {
  return 0;
}
BoolType ServicePausing() {
  return 0;
}
BoolType ServiceContinuing() {
  return 0;
}

void ServiceStarted() {}
void ServiceStopped(BoolType /*normally*/) {}
void ServicePaused() {}
void ServiceDebugMsg(const char* /*text*/) {}
void ServiceSetExitCode(int /*code*/) {}
void ServiceSetLogName(const char* /*name*/) {}
void ServiceLogFailed() {}
void ServiceCrashed() {}
