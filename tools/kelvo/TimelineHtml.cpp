// The HTML timeline: trace events laid out as one SVG row per track.
#include "TimelineHtml.h"

#include <Kelvo/ExceptionCpp.h>

#include <rapidjson/document.h>

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <vector>

namespace Kelvo {

namespace {

constexpr double pageWidth = 1200;
constexpr double labelWidth = 240;
constexpr double rightMargin = 20;
constexpr double plotWidth = pageWidth - labelWidth - rightMargin;
constexpr double axisHeight = 36;
constexpr double rowHeight = 22;
constexpr double barHeight = 14;

struct Span {
    double ts;
    double dur;  // negative for an instant
    std::string name;
    bool open;
};

struct Track {
    std::string name;
    std::vector<Span> spans;
};

// Text and attribute values alike.
std::string xml(const std::string& s) {
    std::string out;
    out.reserve(s.size());
    for (const char c : s) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// A stable hue per task name, so that one task keeps its colour between pages.
unsigned hue(const std::string& name) {
    uint32_t h = 2166136261u;
    for (const unsigned char c : name) {
        h = (h ^ c) * 16777619u;
    }
    return h % 360;
}

// The largest of 1, 2 or 5 times a power of ten that gives at most ten steps.
double axisStep(double range) {
    const double raw = range / 10;
    const double power = std::pow(10, std::floor(std::log10(raw)));
    for (const double m : {1.0, 2.0, 5.0, 10.0}) {
        if (m * power >= raw) {
            return m * power;
        }
    }
    return 10 * power;
}

std::string duration(double us) {
    return us >= 1000 ? fmt::format("{:.3f} ms", us / 1000) : fmt::format("{:.1f} us", us);
}

// An axis time in the unit of its step, with as many decimals as the step has.
std::string axisLabel(double us, double step) {
    const bool ms = step >= 1000;
    const double scale = ms ? 1000 : 1;
    const int decimals = std::max(0, static_cast<int>(-std::floor(std::log10(step / scale))));
    return fmt::format("{:.{}f} {}", us / scale, decimals, ms ? "ms" : "us");
}

const rapidjson::Value* member(const rapidjson::Value& v, const char* name) {
    const auto it = v.FindMember(name);
    return it == v.MemberEnd() ? nullptr : &it->value;
}

std::string stringOf(const rapidjson::Value* v) {
    return v && v->IsString() ? std::string(v->GetString(), v->GetStringLength()) : std::string();
}

}  // namespace

String timelineHtml(const String& traceEventJson, const String& title) {
    rapidjson::Document doc;
    doc.Parse(traceEventJson.data(), traceEventJson.size());
    if (doc.HasParseError() || !doc.IsObject()) {
        RuntimeException::throwException("timeline: not a JSON object");
    }
    const rapidjson::Value* events = member(doc, "traceEvents");
    if (!events || !events->IsArray()) {
        RuntimeException::throwException("timeline: no \"traceEvents\" array");
    }

    std::map<int64_t, Track> tracks;  // by tid, which orders the rows
    double first = INFINITY;
    double last = -INFINITY;
    for (const rapidjson::Value& e : events->GetArray()) {
        if (!e.IsObject()) {
            continue;
        }
        const std::string ph = stringOf(member(e, "ph"));
        const rapidjson::Value* tid = member(e, "tid");
        if (!tid || !tid->IsInt64()) {
            continue;
        }
        Track& track = tracks[tid->GetInt64()];
        if (ph == "M") {
            const rapidjson::Value* args = member(e, "args");
            if (stringOf(member(e, "name")) == "thread_name" && args && args->IsObject()) {
                track.name = stringOf(member(*args, "name"));
            }
            continue;
        }
        const rapidjson::Value* ts = member(e, "ts");
        if (!ts || !ts->IsNumber() || (ph != "X" && ph != "i" && ph != "I")) {
            continue;
        }
        const rapidjson::Value* dur = member(e, "dur");
        const rapidjson::Value* args = member(e, "args");
        const rapidjson::Value* open = args && args->IsObject() ? member(*args, "open") : nullptr;
        Span span{ts->GetDouble(), -1, stringOf(member(e, "name")), open && open->IsTrue()};
        if (ph == "X") {
            span.dur = dur && dur->IsNumber() ? std::max(0.0, dur->GetDouble()) : 0;
        }
        first = std::min(first, span.ts);
        last = std::max(last, span.ts + std::max(0.0, span.dur));
        track.spans.push_back(std::move(span));
    }
    if (first > last) {
        first = last = 0;
    }
    // A page of one instant still gets an axis of some width.
    const double range = std::max(last - first, 1.0);
    const auto x = [&](double ts) { return labelWidth + (ts - first) / range * plotWidth; };

    const double height = axisHeight + rowHeight * static_cast<double>(tracks.size()) + 10;
    std::string svg;
    svg += fmt::format("<svg width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} {1}\" role=\"img\">\n",
                       pageWidth, height);
    // The axis: ticks at round times from the first event, with grid lines.
    const double step = axisStep(range);
    for (double t = 0; t <= range + step / 1e6; t += step) {
        const double tx = x(first + t);
        svg += fmt::format(
            "<line class=\"grid\" x1=\"{0:.1f}\" y1=\"{1}\" x2=\"{0:.1f}\" y2=\"{2}\"/>"
            "<text class=\"tick\" x=\"{0:.1f}\" y=\"{3}\">{4}</text>\n",
            tx, axisHeight - 6, height - 10, axisHeight - 12, xml(axisLabel(t, step)));
    }
    double y = axisHeight;
    bool odd = false;
    for (const auto& [tid, track] : tracks) {
        const std::string label = track.name.empty() ? fmt::format("track {}", tid) : track.name;
        svg += fmt::format(
            "<g class=\"row\"><rect class=\"{}\" x=\"0\" y=\"{}\" width=\"{}\" height=\"{}\"/>"
            "<text class=\"label\" x=\"6\" y=\"{}\">{}<title>{}</title></text>\n",
            odd ? "odd" : "even", y, pageWidth, rowHeight, y + rowHeight - 7, xml(label),
            xml(label));
        odd = !odd;
        for (const Span& s : track.spans) {
            const double sx = x(s.ts);
            if (s.dur < 0) {
                svg += fmt::format(
                    "<line class=\"instant\" x1=\"{0:.2f}\" y1=\"{1}\" x2=\"{0:.2f}\" y2=\"{2}\">"
                    "<title>{3} at {4}</title></line>\n",
                    sx, y + 3, y + rowHeight - 3, xml(s.name), xml(duration(s.ts - first)));
            } else {
                // At least a pixel wide, so that the shortest run still shows.
                const double width = std::max(1.0, s.dur / range * plotWidth);
                svg += fmt::format(
                    "<rect class=\"run{}\" x=\"{:.2f}\" y=\"{}\" width=\"{:.2f}\" height=\"{}\" "
                    "style=\"fill:hsl({},65%,50%)\"><title>{}: {} at {}{}</title></rect>\n",
                    s.open ? " open" : "", sx, y + (rowHeight - barHeight) / 2, width, barHeight,
                    hue(s.name), xml(s.name), xml(duration(s.dur)), xml(duration(s.ts - first)),
                    s.open ? " (still running)" : "");
            }
        }
        svg += "</g>\n";
        y += rowHeight;
    }
    svg += "</svg>\n";

    return fmt::format(
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
        "<title>{0}</title>\n<style>\n"
        "body {{ font: 13px sans-serif; margin: 16px; background: #fff; color: #222; }}\n"
        "h1 {{ font-size: 16px; }}\n"
        "svg {{ max-width: 100%; height: auto; }}\n"
        ".even {{ fill: #f4f4f4; }} .odd {{ fill: #e8e8e8; }}\n"
        ".grid {{ stroke: #c8c8c8; stroke-width: 1; }}\n"
        ".tick {{ font-size: 11px; text-anchor: middle; fill: #555; }}\n"
        ".label {{ font-size: 12px; fill: #222; }}\n"
        ".run {{ stroke: #333; stroke-width: 0.5; }}\n"
        ".run.open {{ stroke-dasharray: 3 2; fill-opacity: 0.6; }}\n"
        ".instant {{ stroke: #c0392b; stroke-width: 1.5; }}\n"
        "rect.run:hover, line.instant:hover {{ stroke: #000; stroke-width: 2; }}\n"
        "</style>\n</head>\n<body>\n<h1>{0}</h1>\n<p>{1} tracks, {2} from the first event to "
        "the last. Hover over a bar or a tick for its name and time.</p>\n{3}</body>\n</html>\n",
        xml(title), tracks.size(), xml(duration(last - first)), svg);
}

}  // namespace Kelvo
