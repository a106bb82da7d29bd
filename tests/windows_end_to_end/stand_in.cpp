// A program of which only the name matters, or the number that it ends with. Without a number it
// says that it has begun, by an event with its process's number in the name, and goes on for a
// while.
#include <windows.h>

#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    if (argc > 1) {
        return std::atoi(argv[1]);
    }
    const std::string strName = "DakStandIn" + std::to_string(::GetCurrentProcessId());
    ::CreateEventA(nullptr, TRUE, TRUE, strName.c_str());
    ::Sleep(120'000); // nothing outlives the tests for long
    return 1;
}
