# What scdoc leaves out of a manual page.
# The first line has man run tbl, for the tables.
1i\
'\\" t
# No hyphenation: a reader searches for keys and names, which must not be split. Only .nh behind
# .TH works, because .TH switches hyphenation on.
s/^\.TH .*/&\n.nh/
