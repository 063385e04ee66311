# Turns the English string table into a C++ source holding it as a raw string.
file(READ ${IN} content)
set(delim "CVSTRINGS")
file(WRITE ${OUT} "// Generated from resources/Localizable.plist; do not edit.\n"
  "namespace cirrovault { extern const char* const kEmbeddedStringTable;\n"
  "const char* const kEmbeddedStringTable = R\"${delim}(${content})${delim}\"; }\n")
