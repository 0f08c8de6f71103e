#!/usr/bin/env bash
# check-docs.sh SOURCE-DIRECTORY
#
# The documentation is made without a warning, and every link in it leads to a page and a place that are there.
set -euo pipefail

source=$1
if ! command -v doxygen >/dev/null; then
    echo "doxygen is not installed"
    exit 77
fi
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT

"${source}/scripts/docs" "${scratch}/site"
for page in index guide behaviour camera footprint annotated classKString classKPropertyList; do
    [[ -s ${scratch}/site/${page}.html ]] || { echo "the page ${page} is not there"; exit 1; }
done

python3 - "${scratch}/site" <<'END'
import html.parser
import pathlib
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    def __init__(self, path):
        super().__init__()
        self.places, self.links = set(), []
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attributes):
        values = dict(attributes)
        self.places |= {values[name] for name in ("id", "name") if values.get(name)}
        self.links += [values[name] for name in ("href", "src") if values.get(name)]


root = pathlib.Path(sys.argv[1])
pages = {path.name: Page(path) for path in root.glob("*.html")}
broken = 0
for name, page in sorted(pages.items()):
    for link in page.links:
        parts = urllib.parse.urlsplit(link)
        if parts.scheme or parts.netloc:
            continue
        target = urllib.parse.unquote(parts.path) or name
        place = urllib.parse.unquote(parts.fragment)
        if not (root / target).exists():
            print(f"{name} links to {target}, which is not there")
            broken += 1
        elif place and target in pages and place not in pages[target].places:
            print(f"{name} links to {target}#{place}, which is not there")
            broken += 1
sys.exit(1 if broken else 0)
END
