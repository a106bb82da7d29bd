#include "cli/description.h"

#include "cli/patience.h"
#include "cli/text.h"

namespace cli {

DESCRIPTION Describe(CONTEXT& context, CDAKVorn& dak, const std::string& strPath) {
    const CPatience patience(context);
    _tagFileInfo info = {};
    const DWORD dwResult = dak.DAKGetFileInfo(Utf8ToWide(strPath)->c_str(), &info);
    DESCRIPTION description{dwResult,
                            ExplainOperation(Action::Describe, dwResult, dak.GetLastError()),
                            TakeFacts(info)};
    if (description.meaning.nExit != EXIT_DONE) {
        description.meaning.strSentence = strPath + ": " + description.meaning.strSentence;
    }
    return description;
}

DESCRIPTION DescribeForCertain(CONTEXT& context, CDAKVorn& dak, const std::string& strPath) {
    DESCRIPTION description = Describe(context, dak, strPath);
    return description.dwResult == DAKERROR_FAIL ? Describe(context, dak, strPath) : description;
}

} // namespace cli
