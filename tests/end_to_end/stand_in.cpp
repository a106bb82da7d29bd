// A program of which only the name matters. Nothing outlives the tests for long.
#include <cstdio>
#include <thread>

int main() {
    std::puts("begun");
    std::fflush(stdout);
    std::this_thread::sleep_for(std::chrono::minutes(2));
    return 1;
}
