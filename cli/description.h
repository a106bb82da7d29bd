// Asks the device what one of its files or folders is.
#pragma once

#include "cli/file_facts.h"
#include "cli/report.h"

#include "link/dak_vorn.h"

#include <string>

namespace cli {

// The facts hold when the meaning is EXIT_DONE. With DAKERROR_FAIL the device knows no such path;
// other results are the link's.
struct DESCRIPTION {
    DWORD dwResult;
    MEANING meaning; // its sentence begins with the path
    FILEFACTS facts;
};

DESCRIPTION Describe(CONTEXT& context, CDAKVorn& dak, const std::string& strPath);

// The same, where it matters that a path is not there: a device that goes away in the middle of the
// answer looks so, and is asked again.
DESCRIPTION DescribeForCertain(CONTEXT& context, CDAKVorn& dak, const std::string& strPath);

} // namespace cli
