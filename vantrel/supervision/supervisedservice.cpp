#include "vantrel/supervision/supervisedservice.h"

#include "vantrel/supervision/restart.h"
#include "vantrel/supervision/runvantrel.h"

void cSupervisedVantrelClass::RememberProcessArguments(int argc, char** argv) { gRememberProcessArguments(argc, argv); }

void cSupervisedVantrelClass::RestartProcess() { gRestartVantrelProcess(GetNetPortZ5181()); }

bool cSupervisedVantrelClass::IsOtherServiceProcessRunning() {
  return IsVantrelProcessRunning(nullptr) == 0 || IsVantrlServiceRunning(false) != 0;
}
