#include <cstdio>

int main() {
    std::puts("kavelo-cli: nothing to run yet");
    return 0;
}
