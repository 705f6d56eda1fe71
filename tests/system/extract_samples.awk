# Prints the C++ blocks of a Markdown file, so that compilers name the document's lines.
#   awk -v name=docs/guide.md -f extract_samples.awk docs/guide.md
/^```cpp$/ { inside = 1; printf "#line %d \"%s\"\n", FNR + 1, name; next }
/^```/     { inside = 0 }
inside     { print }
