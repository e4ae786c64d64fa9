"""The guide's code is the examples' code: every fenced block that follows a
line "<!-- quote: PATH -->" must appear, line for line, in that file."""
import pathlib
import re
import sys

guide_path, root = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
guide = guide_path.read_text(encoding="utf-8")
blocks = re.findall(r"<!-- quote: (\S+) -->\n```[a-z]*\n(.*?)```", guide, re.S)
failures = []
for path, code in blocks:
    source = root / path
    if not source.is_file():
        failures.append(f"{path}: no such file")
    elif code not in source.read_text(encoding="utf-8"):
        failures.append(f"{path} no longer contains:\n{code}")
if len(blocks) < 8:
    failures.append(f"only {len(blocks)} quoted blocks in {guide_path}")
print("\n".join(failures) or f"{len(blocks)} quoted blocks match their files")
sys.exit(1 if failures else 0)
