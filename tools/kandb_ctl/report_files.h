// The files of the report page, from tools/kandb_ctl/report; the build makes their definitions.
#pragma once

#include <string_view>

namespace kandb::ctl {

// The page, with a {{name}} for each part that is filled in.
extern const std::string_view kPageHtml;

extern const std::string_view kStyleCss;
extern const std::string_view kRegionsJs;  // reads the page's data, fills the table of regions
extern const std::string_view kBandJs;     // draws the band from what kRegionsJs has read

}  // namespace kandb::ctl
