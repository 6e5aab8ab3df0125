# Doxygen's input filter: the prose that opens a header is the description of the file.
FNR == 1 && /^\/\// { opening = 1; print "/// @file" }
opening && /^\/\// { sub(/^\/\//, "///") }
!/^\/\// { opening = 0 }
{ print }
