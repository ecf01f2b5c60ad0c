// Runs the incompatible-library check and says whether it passed.
#include <Kelvo/PluginCpp.h>

#include <cstdio>

int main() {
    Kelvo::checkIncompat();
    std::printf("checkIncompat passed\n");
    return 0;
}
