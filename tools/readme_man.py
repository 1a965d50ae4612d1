#!/usr/bin/env python3
"""Writes the man page collctl.1 from the README's "## collctl(1)" section.

    tools/readme_man.py README.md [VERSION] > collctl.1

The section's Markdown is plain: "### NAME" headings, paragraphs, "- " lists,
blocks indented by four blanks, one pipe table, `code` and **bold**. The
checked-in collctl.1 is this script's output; a test keeps the two equal.
"""
import re
import sys


def inline(text):
    text = text.replace("\\", "\\e")
    text = re.sub(r"\*\*(.+?)\*\*", r"\\fB\1\\fR", text)
    text = re.sub(r"`([^`]+)`", r"\\fB\1\\fR", text)
    return text


def line_out(text):
    # A line may not start with a control character.
    return "\\&" + text if text[:1] in (".", "'") else text


def main():
    readme = open(sys.argv[1], encoding="utf-8").read().split("\n")
    version = sys.argv[2] if len(sys.argv) > 2 else ""
    start = readme.index("## collctl(1)") + 1
    end = next((i for i in range(start, len(readme)) if readme[i].startswith("## ")), len(readme))
    out = ['.TH COLLCTL 1 "" "libcoll %s" "User Commands"' % version]
    in_code = False
    para = []  # the lines of the paragraph or list item being read

    def flush():
        # Marked up whole: `code` may run on to the next line.
        if para:
            out.extend(line_out(line) for line in inline("\n".join(para)).split("\n"))
            para.clear()

    for raw in readme[start:end]:
        if para and (raw == "" or raw.startswith(("### ", "    ", "|", "- "))):
            flush()
        if in_code and (raw.startswith("    ") or raw == ""):
            out.append(line_out(raw[4:].replace("\\", "\\e")) if raw else "")
            continue
        if in_code:
            while out[-1] == "":
                out.pop()
            out.append(".EE")
            in_code = False
            if not raw.startswith("### "):
                out.append(".PP")
        if raw.startswith("### "):
            out.append(".SH " + raw[4:])
        elif raw.startswith("    "):
            out += [".PP", ".EX", line_out(raw[4:].replace("\\", "\\e"))]
            in_code = True
        elif raw == "":
            if out[-1] not in (".PP",) and not out[-1].startswith(".SH"):
                out.append(".PP")
        elif raw.startswith("|"):
            cells = [c.strip() for c in raw.strip("|").split("|")]
            if all(set(c) <= set("-: ") for c in cells):
                continue
            out += [".TP", inline(cells[0]), line_out(inline(" ".join(cells[1:])))]
        elif raw.startswith("- "):
            out.append(".IP \\(bu 2")
            para.append(raw[2:])
        else:
            para.append(raw.strip())
    flush()
    if in_code:
        out.append(".EE")
    while out[-1] in ("", ".PP"):
        out.pop()
    sys.stdout.write("\n".join(out) + "\n")


main()
