#!/usr/bin/perl
# Makes lib/unicode/data/caseFolding.inc from CaseFolding.txt of the Unicode Character Database (15.0.0 was used; foldings of
# characters that exist never change):
#
#    tools/caseFolding.pl CaseFolding.txt > lib/unicode/data/caseFolding.inc
#
# Kept are the simple foldings (status C and S) of the characters that Unicode 5.0 had, below U+10000.
use strict;
use warnings;

print <<'END';
/* The simple case foldings (status C and S) of the Unicode Character Database, of the characters below U+10000 that
   Unicode 5.0 had. Made by tools/caseFolding.pl. */

END
while (<>) {
   my ($from, $status, $to, $name) = /^([0-9A-F]{4}); ([CS]); ([0-9A-F]{4}); # (.*)$/ or next;
   next unless chr(hex $from) =~ /\p{Present_In: 5.0}/;
   print "{0x$from, 0x$to}, // $name\n";
}
