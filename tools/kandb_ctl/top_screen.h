// The screen of `kandb-ctl top` as lines of text.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kandb_ctl/top_model.h"

namespace kandb::ctl {

struct ScreenLine {
  enum class Style { kPlain, kBold, kBad };
  std::string text;  // printable
  Style style = Style::kPlain;
};

struct ScreenSize {
  std::size_t rows = 0;
  std::size_t columns = 0;
};

// At most `size.rows` lines of at most `size.columns` cells: the first says whom and how, the last
// which part of the rest is seen, between them the lines from `*first_line` on. That is lowered
// when nothing would follow. With `unicode` in UTF-8.
std::vector<ScreenLine> DrawTop(const TopModel& model, TopModel::Time now, ScreenSize size,
                                bool unicode, std::size_t* first_line);

}  // namespace kandb::ctl
