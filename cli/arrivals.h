// What a pull brought. The library tells the outcome of a job, not the files; they are found by
// looking at the host's folder before and after.
#pragma once

#include "cli/file_stamp.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace cli {

struct ARRIVAL {
    std::string strPath; // on the host
    std::uint64_t qwSize;
};

class CArrivals {
  public:
    // Remembers which files the folder holds under the wanted names: the file of that name, or all
    // files below the folder of that name.
    CArrivals(std::string strFolder, std::vector<std::string> names);

    // The files that came since then, sorted by path. A file that was there before counts when
    // another has taken its place.
    std::vector<ARRIVAL> Arrived() const;

    // The wanted names under which nothing has come.
    std::vector<std::string> Missing() const;

  private:
    using Stamps = std::map<std::string, FILESTAMP>;

    Stamps Look(const std::string& strName) const;

    std::string m_strFolder;
    std::vector<std::string> m_names;
    Stamps m_before;
};

} // namespace cli
