#include "cli/verdict.h"

#include "cli/patience.h"

namespace cli {

MEANING JudgeOperation(CONTEXT& context, CDAKVorn& dak, Action action, DWORD dwResult) {
    const DWORD dwLastError = dak.GetLastError();
    if (dwResult == DAKERROR_FAIL && dwLastError == DAKERROR_FAIL) {
        const CPatience patience(context);
        if (dak.ConnectDevice() == DAKERROR_NO_DEVICE) {
            return Explain(action, Stage::Running, DAKERROR_NO_DEVICE);
        }
    }
    return ExplainOperation(action, dwResult, dwLastError);
}

} // namespace cli
