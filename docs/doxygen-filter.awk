# Makes Doxygen read the headers' plain comments: one in front of declarations
# documents all of them up to the next empty line, one behind a declaration
# documents that.
/^ *\/\// {
  sub(/\/\//, "///")
  gsub(/</, "\\<")
  doc = (in_doc ? doc "\n" : "") $0
  in_doc = 1
  print
  next
}
/^ *$/ || /^ *(public|protected|private):$/ { doc = "" }
{
  if (!in_doc && doc != "" && begins) print doc
  in_doc = 0
  if (/\{$/) doc = ""
  begins = /[;}] *(\/\/.*)?$/  # The next line begins a declaration.
  if (/(\{\}|[;,]) +\/\/ /) sub(/\/\/ /, "///< ")
  print
}
