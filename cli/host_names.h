// What the command asks of the system about names of files on this computer. One file a system:
// host_names_posix.cpp, host_names_windows.cpp. Text is UTF-8.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace cli {

// A path, and its text. A name that the system allows though it is no text comes as bytes that are
// not UTF-8.
std::filesystem::path ToPath(const std::string& strText);
std::string PathText(const std::filesystem::path& path);

// Whether the character separates folders in paths of this computer.
bool IsHostSeparator(char ch);

// The narrow text that the library takes and gives for paths of this computer; nothing where that
// cannot hold the path.
std::optional<std::string> ToLibraryText(const std::string& strText);
std::string FromLibraryText(const char* lpszText);

// Whether the entry leads to another one. It is not followed.
bool IsLink(const std::filesystem::path& path);

// The paths that a word of the command line stands for: the word itself or, where shells leave
// patterns to the programs, what * and ? in its last component fit, in the byte order of names.
std::vector<std::string> ExpandWord(const std::string& strWord);

// The same for names that one folder cannot hold beside one another.
std::string NameKey(const std::string& strName);

// Why no file here can have the name; null when one can.
const char* NameFault(const std::string& strName);

} // namespace cli
