#include "kandb_ctl/terminal.h"

// Its macros have names such as move and clear.
#define NCURSES_NOMACROS
#include <curses.h>
#include <langinfo.h>
#include <poll.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <string>

namespace kandb::ctl {

namespace {

constexpr short kRed = 1;

Terminal::Key ReadKey() {
  switch (::getch()) {
    case 'q':
    case 'Q':
      return Terminal::Key::kQuit;
    case 'k':
    case KEY_UP:
      return Terminal::Key::kUp;
    case 'j':
    case KEY_DOWN:
      return Terminal::Key::kDown;
    case KEY_PPAGE:
      return Terminal::Key::kPageUp;
    case KEY_NPAGE:
      return Terminal::Key::kPageDown;
    default:
      return Terminal::Key::kNone;
  }
}

}  // namespace

Status Terminal::Open() {
  if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDOUT_FILENO) == 0) {
    return Status::InvalidArgument(
        "standard input and output must be a terminal; kandb-ctl health and metrics print the "
        "same");
  }
  (void)std::setlocale(LC_CTYPE, "");
  unicode = std::string(::nl_langinfo(CODESET)) == "UTF-8";
  screen = ::newterm(nullptr, stdout, stdin);
  if (screen == nullptr) {
    const char* type = std::getenv("TERM");
    return Status::InvalidArgument("cannot draw on a terminal of type '" +
                                   std::string(type == nullptr ? "" : type) + "': set TERM");
  }
  (void)::cbreak();
  (void)::noecho();
  (void)::nodelay(stdscr, TRUE);
  (void)::keypad(stdscr, TRUE);
  (void)::curs_set(0);
  if (::has_colors()) {
    (void)::start_color();
    (void)::use_default_colors();
    (void)::init_pair(kRed, COLOR_RED, -1);
  }
  return {};
}

Terminal::~Terminal() {
  if (screen == nullptr) return;
  (void)::endwin();
  ::delscreen(static_cast<SCREEN*>(screen));
}

ScreenSize Terminal::Size() const {
  return {static_cast<std::size_t>(::getmaxy(stdscr)), static_cast<std::size_t>(::getmaxx(stdscr))};
}

void Terminal::Show(const std::vector<ScreenLine>& lines) {
  (void)::erase();
  int row = 0;
  for (const ScreenLine& line : lines) {
    attr_t style = A_NORMAL;
    if (line.style == ScreenLine::Style::kBold) style = A_BOLD;
    if (line.style == ScreenLine::Style::kBad) {
      style = A_BOLD | (::has_colors() ? static_cast<attr_t>(COLOR_PAIR(kRed)) : A_REVERSE);
    }
    (void)::attrset(static_cast<int>(style));
    (void)::mvaddstr(row++, 0, line.text.c_str());
  }
  (void)::refresh();
}

Terminal::Key Terminal::WaitForKey(std::chrono::milliseconds limit) {
  // Several keys may have been read at once.
  if (const Key key = ReadKey(); key != Key::kNone) return key;
  pollfd input{STDIN_FILENO, POLLIN, 0};
  if (::poll(&input, 1, static_cast<int>(limit.count())) > 0 && (input.revents & POLLIN) == 0) {
    return Key::kQuit;
  }
  return ReadKey();
}

}  // namespace kandb::ctl
