// Stands in for the HTML timeline until its renderer is part of the tree.
#include "TimelineHtml.h"
#include "Tool.h"

namespace Kelvo {

String timelineHtml(const String&, const String&) {
    throw KelvoTool::Failure("timeline: this build has no HTML renderer");
}

}  // namespace Kelvo
