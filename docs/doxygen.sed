# Makes documentation of plain comments. The first block of a file describes the file.
1{
  s|^// |/// \\file\n/// |
  b
}
s|^(\s*)// ?|\1/// |
s|^(.*[^/[:space:]].*[[:space:]])// (.*)|\1///< \2|
