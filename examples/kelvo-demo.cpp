// What a daemon gets from libKelvo without writing any set-up code: trace
// lines configured from TRACE, TRACEFORMAT and TRACEFILE, and library
// exceptions that carry the stack of the point where they were raised.
//
//   TRACE='KelvoDemo/0123' TRACEFORMAT=time,tid,handle,level,line-info ./kelvo-demo
#include <Kelvo/Kelvo.h>

#include <iostream>

namespace {

class Daemon : public Kelvo::Debuggable {
  public:
    Daemon() : Kelvo::Debuggable("KelvoDemo") {}

    void start(int workers) {
        KELVO_TRACEM(*this, 1, "starting with {} workers", workers);
        KELVO_TRACEM(*this, 3, "thread {} is the main thread: {}", Kelvo::gettid(),
                     Kelvo::isMainThread());
        KELVO_TRACEM(*this, 9, "step-by-step detail, shown only with level 9 enabled");
    }

    void openSpool(const std::string& path) {
        Kelvo::RuntimeException::throwException("cannot open spool " + path);
    }
};

}  // namespace

int main() {
    Daemon daemon;
    daemon.start(4);
    try {
        daemon.openSpool("/var/spool/demo");
    } catch (const Kelvo::Exception& e) {
        std::cout << "caught " << e.name() << ":\n" << e.what();
    }
    std::cout << "trace registry:\n";
    Kelvo::Platform::dumpKelvoDebugMap();
    return 0;
}
