// The files of the report page, from tools/kandb_ctl/report; the build makes their definitions.
#pragma once

#include <string_view>

namespace kandb::ctl {

// The page, with a {{name}} for each part that is filled in.
extern const std::string_view page_html;

extern const std::string_view style_css;

// The scripts, in the order in which they build on one another.
extern const std::string_view key_text_js;  // keys as people write them; alone, for its test
extern const std::string_view data_js;      // reads the page's data, names and quotes it
extern const std::string_view sort_js;      // makes tables sortable
extern const std::string_view regions_js;   // fills and filters the table of regions
extern const std::string_view band_js;      // draws the key space
extern const std::string_view find_js;      // finds the region that covers a key

}  // namespace kandb::ctl
