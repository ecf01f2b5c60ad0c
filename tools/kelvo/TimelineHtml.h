// The timeline page of `kelvo timeline --html`: a self-contained HTML
// document drawing a trace-event JSON timeline (as historyRenderTraceEvents
// writes it) as inline SVG, one row per track, runs as bars whose names show
// on hover, instants as ticks, and a time axis. The page needs no script and
// references no outside resource. Pure function; any thread.
#pragma once

#include <Kelvo/KelvoBase.h>

namespace Kelvo {

// Throws RuntimeException when traceEventJson is not a JSON object with a
// "traceEvents" array. Events of other phases than "X", "i"/"I" and the
// "thread_name" metadata are ignored; so are events missing "ts" or "tid".
String timelineHtml(const String& traceEventJson, const String& title);

}  // namespace Kelvo
