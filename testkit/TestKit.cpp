// The test kit: fast-forward scopes, a bounded loop runner and trace capture,
// built on the library's public interface only.
#include <Kelvo/DebugCpp.h>
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/LockingCpp.h>
#include <Kelvo/PlatformCpp.h>
#include <Kelvo/TestKit.h>

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace Kelvo {
namespace TestKit {

using Platform::LocoGuard;
using Sarn::DebugControl;

void FastForwardTest::SetUp() {
    Platform::setFastForward(true);
}

void FastForwardTest::TearDown() {
    Platform::setFastForward(false);
}

FastForwardScope::FastForwardScope(bool enabled) : previous_(Platform::fastForward()) {
    Platform::setFastForward(enabled);
}

FastForwardScope::~FastForwardScope() {
    Platform::setFastForward(previous_);
}

::testing::AssertionResult runLoopUntil(const std::function<bool()>& done, double boundSeconds,
                                        const std::function<std::string()>& describe) {
    if (!(boundSeconds >= 0) || std::isinf(boundSeconds)) {
        return ::testing::AssertionFailure()
               << fmt::format("bound of {} s is not a finite, non-negative time", boundSeconds);
    }
    // A real-time slice ends early only when the loop runs out of events, so
    // its length is the delay before a change made by another thread is seen.
    constexpr double realTimeSlice = 0.01;
    const double start = Kelvo::time();
    while (true) {
        if (done()) {
            return ::testing::AssertionSuccess();
        }
        const double spent = Kelvo::time() - start;
        if (spent >= boundSeconds) {
            ::testing::AssertionResult failure = ::testing::AssertionFailure();
            failure << fmt::format("not reached within {} s of loop time (spent {:.2f} s)",
                                   boundSeconds, spent);
            if (describe) {
                failure << "; last seen: " << describe();
            }
            return failure;
        }
        const double left = boundSeconds - spent;
        // Under fast-forward one step runs to the next timer or to the bound,
        // whichever is first, and done() is tested between timers.
        Platform::doEventLoopInWaitfor(Platform::fastForward() ? left
                                                               : std::min(left, realTimeSlice));
    }
}

// ---------------------------------------------------------------------------
// Trace capture

// Everything here is guarded by the global lock, under which the library
// calls the trace-line observer.
struct TraceCapture::State {
    String name;
    uint32_t levels = 0;
    // The name's control before the capture, and the levels a handle of the
    // name made then would have had (the control's, or the wildcard's).
    bool hadControl = false;
    uint32_t controlLevels = 0;
    uint32_t newHandleLevels = 0;
    // The handles of the name alive at the start, with their masks.
    std::vector<std::pair<const Platform::DebugHandler*, uint32_t>> handles;
    std::vector<std::string> lines;
    std::vector<std::string> messages;

    uint32_t levelsBefore(const Platform::DebugHandler* handle) const {
        for (const auto& [known, mask] : handles) {
            if (known == handle) {
                return mask;
            }
        }
        return newHandleLevels;
    }
};

// The live captures and the observer that was installed before the first.
class TraceCaptureRegistry {
  public:
    static void add(TraceCapture::State* state) {
        if (captures().empty()) {
            previous() = Platform::traceLineObserver();
            Platform::traceLineObserverIs({&observe, nullptr});
        }
        captures().push_back(state);
    }

    static void remove(TraceCapture::State* state) {
        auto& all = captures();
        all.erase(std::remove(all.begin(), all.end(), state), all.end());
        if (all.empty()) {
            Platform::traceLineObserverIs(previous());
        }
    }

  private:
    static std::vector<TraceCapture::State*>& captures() {
        static std::vector<TraceCapture::State*> all;
        return all;
    }

    static Platform::TraceLineObserver& previous() {
        static Platform::TraceLineObserver observer;
        return observer;
    }

    static bool observe(void*, const Platform::ObservedTraceLine& line) {
        bool withhold = false;
        if (line.handle != nullptr && line.level < 32) {
            const uint32_t bit = 1u << line.level;
            for (TraceCapture::State* state : captures()) {
                if ((state->levels & bit) && line.handle->name == state->name) {
                    state->lines.emplace_back(line.line);
                    state->messages.emplace_back(line.message);
                    withhold = withhold || !(state->levelsBefore(line.handle) & bit);
                }
            }
        }
        if (withhold) {
            return true;
        }
        const Platform::TraceLineObserver& next = previous();
        return next.function != nullptr && next.function(next.context, line);
    }
};

namespace {

// The levels a new handle named name gets from the registry now.
uint32_t registryLevels(const String& name) {
    if (auto it = DebugControl::debugsMap_->find(name); it != DebugControl::debugsMap_->end()) {
        return it->second->levels;
    }
    const DebugControl* wildcard = DebugControl::findWildcard(name);
    return wildcard ? wildcard->levels : 0;
}

}  // namespace

TraceCapture::TraceCapture(const std::string& handleName, const std::string& levels)
    : state_(std::make_unique<State>()) {
    KELVO_ASSERT(!handleName.empty() && handleName.back() != '*',
                 "TraceCapture needs an exact handle name, not \"{}\"", handleName);
    LocoGuard guard;
    DebugControl::initialize();
    Sarn::DebugHandler::initialize();
    State& state = *state_;
    state.name = handleName;
    state.levels = DebugControl::parseLevels(levels);
    if (auto it = DebugControl::debugsMap_->find(handleName);
        it != DebugControl::debugsMap_->end()) {
        state.hadControl = true;
        state.controlLevels = it->second->levels;
    }
    state.newHandleLevels = registryLevels(handleName);
    auto [first, last] = Sarn::DebugHandler::handlerMap_->equal_range(handleName);
    for (auto it = first; it != last; ++it) {
        state.handles.emplace_back(it->second, it->second->levels.load(std::memory_order_relaxed));
    }
    DebugControl::set(handleName, levels);
    TraceCaptureRegistry::add(&state);
}

TraceCapture::~TraceCapture() {
    LocoGuard guard;
    State& state = *state_;
    TraceCaptureRegistry::remove(&state);
    auto& controls = *DebugControl::debugsMap_;
    auto it = controls.find(state.name);
    if (state.hadControl) {
        if (it == controls.end()) {
            // Owned by the map, as the controls set() makes.
            new DebugControl(state.name, static_cast<int>(state.controlLevels), false);
        } else {
            it->second->levels = state.controlLevels;
        }
    } else if (it != controls.end()) {
        delete it->second;  // the capture made it; new handles inherit again
    }
    // A handle made during the capture gets what it would have got without it.
    const uint32_t inherited = registryLevels(state.name);
    auto [first, last] = Sarn::DebugHandler::handlerMap_->equal_range(state.name);
    for (auto handle = first; handle != last; ++handle) {
        if (!handle->second->fixedLevels) {
            uint32_t mask = inherited;
            for (const auto& [known, before] : state.handles) {
                if (known == handle->second) {
                    mask = before;
                }
            }
            handle->second->levels.store(mask, std::memory_order_relaxed);
        }
    }
}

std::vector<std::string> TraceCapture::lines() const {
    LocoGuard guard;
    return state_->lines;
}

std::vector<std::string> TraceCapture::messages() const {
    LocoGuard guard;
    return state_->messages;
}

bool TraceCapture::contains(std::string_view text) const {
    LocoGuard guard;
    return std::any_of(state_->lines.begin(), state_->lines.end(),
                       [&](const std::string& line) { return line.find(text) != line.npos; });
}

}  // namespace TestKit
}  // namespace Kelvo
