#!/bin/bash
# Turns text on standard input into an SVG picture of a terminal on standard output.
# Usage: simulator/demo.sh build/release | sed -n 4,31p | tools/picture.sh > docs/demo.svg
set -euo pipefail

awk '
  { gsub(/&/, "\\&amp;"); gsub(/</, "\\&lt;"); gsub(/>/, "\\&gt;"); lines[NR] = $0
    if (length($0) > widest) widest = length($0) }
  END {
    width = widest * 8.4 + 40; height = NR * 18 + 36
    printf "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" viewBox=\"0 0 %d %d\">\n", width, height, width, height
    printf "<rect width=\"100%%\" height=\"100%%\" rx=\"8\" fill=\"#1c2128\"/>\n"
    printf "<text font-family=\"ui-monospace,DejaVu Sans Mono,Menlo,Consolas,monospace\" font-size=\"14\" fill=\"#d8dee9\" xml:space=\"preserve\">\n"
    for (i = 1; i <= NR; i++) {
      colour = lines[i] ~ /^==/ ? " fill=\"#88c0d0\"" : lines[i] ~ /^(Selected|Retained)/ ? " fill=\"#a3be8c\"" : ""
      printf "<tspan x=\"20\" y=\"%d\"%s>%s</tspan>\n", i * 18 + 14, colour, lines[i]
    }
    print "</text>\n</svg>"
  }'
