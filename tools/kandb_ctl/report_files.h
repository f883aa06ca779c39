// The files of the report page, from tools/kandb_ctl/report; the build makes their definitions.
#pragma once

#include <string_view>

namespace kandb::ctl {

// The page, with a {{name}} for each part that is filled in.
extern const std::string_view page_html;

extern const std::string_view style_css;
extern const std::string_view regions_js;  // reads the page's data, fills the table of regions
extern const std::string_view band_js;     // draws the band from what regions_js has read

}  // namespace kandb::ctl
