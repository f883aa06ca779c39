// The style sheet of the report page.
#pragma once

#include <string_view>

namespace kandb::ctl {

inline constexpr std::string_view kReportStyle = R"css(
:root {
  color-scheme: light dark;
  --page: #ffffff; --text: #1b1f24; --muted: #57606a; --line: #c9d1d9; --head: #f3f5f7;
  --region: #2f6aa8; --region-next: #5b8fc7; --gap: #c4162a; --overlap: #b35900;
  --leader: #1a7f4b; --link: #0b57c2; --good: #1a7f4b; --bad: #b3122a; --shade: #0b57c233;
}
@media (prefers-color-scheme: dark) {
  :root {
    --page: #14181d; --text: #e6e9ec; --muted: #a3adb8; --line: #3b444e; --head: #1e242b;
    --region: #4683c4; --region-next: #75aae2; --gap: #ff5c6c; --overlap: #ffb03b;
    --leader: #4cc38a; --link: #7db4ff; --good: #4cc38a; --bad: #ff7a87; --shade: #7db4ff44;
  }
}
* { box-sizing: border-box; }
body {
  margin: 0 auto; padding: 1rem; max-width: 80rem;
  background: var(--page); color: var(--text); font: 15px/1.45 system-ui, sans-serif;
}
h1 { font-size: 1.3rem; margin: 0 0 .5rem; overflow-wrap: anywhere; }
h2 { font-size: 1.1rem; margin: 1.75rem 0 .5rem; }
h3 { font-size: 1rem; margin: 1rem 0 .5rem; }
p { margin: .25rem 0 .5rem; }
a { color: var(--link); }
:focus-visible { outline: 3px solid var(--link); outline-offset: 2px; }

header dl { display: flex; flex-wrap: wrap; gap: .5rem 2rem; margin: 0; }
header dt, .muted { color: var(--muted); font-size: .85rem; }
header dd { margin: 0; font-weight: 600; font-variant-numeric: tabular-nums; }
.good a, .good { color: var(--good); }
.bad a, .bad { color: var(--bad); }

.box { max-height: 28rem; overflow: auto; border: 1px solid var(--line); border-radius: 6px; }
ul.box { margin: 0; padding: .5rem .5rem .5rem 1.75rem; }
table { border-collapse: collapse; width: 100%; }
th, td { padding: .3rem .6rem; text-align: left; vertical-align: top; }
th { position: sticky; top: 0; background: var(--head); z-index: 1; white-space: nowrap; }
tbody tr { border-top: 1px solid var(--line); }
td { font-variant-numeric: tabular-nums; }
.key { font-family: ui-monospace, monospace; font-size: .9em; overflow-wrap: anywhere; }
.columns { display: grid; grid-template-columns: minmax(0, 3fr) minmax(0, 2fr); gap: 0 2rem; }
.bar { min-width: 7rem; width: 30%; }
.bar i { display: block; height: 6px; min-width: 1px; border-radius: 3px; background: var(--region); }
.bar.leaders i { background: var(--leader); }

button, select, input {
  font: inherit; color: inherit; background: var(--head);
  border: 1px solid var(--muted); border-radius: 6px; padding: .25rem .6rem;
}
button { cursor: pointer; }
button:disabled { opacity: .5; cursor: default; }
button.link {
  border: 0; padding: 0; background: none; color: var(--link); text-decoration: underline;
}
.tools { display: flex; flex-wrap: wrap; gap: .5rem; align-items: center; margin: .5rem 0; }
.tools input { flex: 1 1 12rem; min-width: 0; max-width: 24rem; }

#band { display: block; width: 100%; height: 84px; touch-action: pan-y; cursor: crosshair; }
#overview { height: 6px; background: var(--line); border-radius: 3px; margin: .25rem 0; }
#overview i { display: block; height: 100%; min-width: 4px; border-radius: 3px; background: var(--muted); }
.ends { display: flex; justify-content: space-between; gap: 1rem; }
.ends span { max-width: 48%; }
.legend { display: inline-block; width: .9em; height: .9em; margin: 0 .25em 0 .75em; border-radius: 2px; }
#details {
  min-height: 8.5rem; max-height: 20rem; overflow: auto; padding: .5rem .75rem;
  border: 1px solid var(--line); border-radius: 6px;
}
#details ul { margin: 0 0 .5rem; padding-left: 1.25rem; }

@media (max-width: 50rem) {
  .columns { grid-template-columns: minmax(0, 1fr); }
  .bar { min-width: 4.5rem; }
  th, td { padding: .3rem .4rem; }
}
)css";

}  // namespace kandb::ctl
