#!/usr/bin/env python3
"""The README quotes each example file whole, as a block indented by four
blanks; collctl.1 is the README's collctl section (tools/readme_man.py).

    readme_check.py SOURCE_DIR VERSION EXAMPLE...
"""
import subprocess
import sys

src, version, examples = sys.argv[1], sys.argv[2], sys.argv[3:]
readme = open(f"{src}/README.md", encoding="utf-8").read()
failed = False
for name in examples:
    text = open(f"{src}/{name}", encoding="utf-8").read()
    block = "".join(("    " + line if line.strip() else line) for line in text.splitlines(True))
    if "\n" + block not in readme:
        print(f"README.md does not quote {name} as it is")
        failed = True
man = subprocess.run([sys.executable, f"{src}/tools/readme_man.py", f"{src}/README.md", version],
                     capture_output=True, text=True, check=True).stdout
if man != open(f"{src}/collctl.1", encoding="utf-8").read():
    print(f"collctl.1 is not the README's collctl section: run tools/readme_man.py README.md {version} > collctl.1")
    failed = True
sys.exit(1 if failed else 0)
