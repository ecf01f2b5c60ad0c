// Marks a forked child so that it knows its threads and loop state are copies.
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/ForkHandlerCpp.h>

#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <iostream>

namespace Kelvo {
namespace Platform {

namespace {
bool forkedChild = false;
}  // namespace

void handleFork() {
    forkedChild = true;
}

void setupHandler() {
    if (pthread_atfork(nullptr, nullptr, handleFork) != 0) {
        std::cerr << "Kelvo failed to register atfork handler, reason: " << std::strerror(errno)
                  << "\n"
                  << std::flush;
        KELVO_CHECK(false && "Failed to register Kelvo atfork handler");
    }
}

bool isForkedChild() noexcept {
    return forkedChild;
}

void forkedChildIs(bool value) noexcept {
    forkedChild = value;
}

namespace {
struct RegisterForkHandler {
    RegisterForkHandler() {
        // Its initialiser may not have run yet when this one does.
        static std::ios_base::Init streams;
        setupHandler();
    }
} registerForkHandler;
}  // namespace

}  // namespace Platform
}  // namespace Kelvo
