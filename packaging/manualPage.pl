#!/usr/bin/perl
# Makes the manual page of a module from its header, whose comments are its contract:
#
#     manualPage.pl NAME INCLUDE DESCRIPTION HEADER PAGE
#
# A comment that stands alone becomes text; one above declarations becomes the text below them. What only the
# compilers or the checkers need is left out.

use strict;
use warnings;

my ($name, $include, $description, $header, $page) = @ARGV;
die "usage: manualPage.pl NAME INCLUDE DESCRIPTION HEADER PAGE\n" unless defined $page;

sub escaped {
   my ($text) = @_;
   $text =~ s/\\/\\e/g;
   $text =~ s/^([.'])/\\&$1/;
   return $text;
}

# One sentence a line, as the formatter wants them.
sub prose {
   my ($comment) = @_;
   $comment =~ s{^\s*/\*+\s*}{};
   $comment =~ s{\s*\*/\s*$}{};
   my @paragraphs;
   for my $paragraph (split /\n\s*\n/, $comment) {
      $paragraph =~ s/^\s+//;
      $paragraph =~ s/\n\s*\*?\s*/ /g;
      $paragraph =~ s/([.:]\)?) +(?=[A-Z"])/$1\n/g;
      push @paragraphs, join('', map { escaped($_) . "\n" } split /\n/, $paragraph);
   }
   return join(".Pp\n", @paragraphs);
}

sub literal {
   my ($code) = @_;
   return ".Bd -literal -offset indent\n" . join('', map { escaped($_) . "\n" } split /\n/, $code) . ".Ed\n";
}

# The header's blocks: parted by blank lines outside of braces and comments.
sub blocks {
   my ($source) = @_;
   my (@blocks, $depth, $inComment);
   my $block = '';
   $depth = $inComment = 0;
   for my $line (split /\n/, $source) {
      if ($line =~ /^\s*$/ && !$depth && !$inComment) {
         push @blocks, $block if $block ne '';
         $block = '';
         next;
      }
      $block .= "$line\n";
      (my $code = $line) =~ s{/\*.*?\*/|//.*}{}g;
      $inComment = 0 if $inComment && $code =~ s{.*?\*/}{};
      next if $inComment;
      $inComment = 1 if $code =~ s{/\*.*}{};
      $depth += ($code =~ tr/{//) - ($code =~ tr/}//);
   }
   push @blocks, $block if $block ne '';
   return @blocks;
}

open(my $in, '<', $header) or die "$header: $!\n";
my $source = do { local $/; <$in> };
close $in;
$source =~ s{^#ifndef \S+_H\n#define \S+_H\n}{}m or die "$header: no guard\n";
$source =~ s{\n#endif\n\z}{\n};
$source =~ s{^#ifdef __cplusplus\n.*?\n#endif\n}{}msg;
$source =~ s{^[ \t]*/\* NOLINT.*?\*/\n}{}msg;
$source =~ s{^#include .*\n}{}mg;

my $upper = uc $name;
my $text = <<"HEAD";
.Dd November 21, 2026
.Dt $upper 3
.Os
.Sh NAME
.Nm $name
.Nd $description
.Sh SYNOPSIS
.In $include
.Sh DESCRIPTION
HEAD
my $first = 1;
for my $block (blocks($source)) {
   $block =~ m{\A(/\*.*?\*/\n)?(.*)\z}s;
   my ($comment, $code) = ($1, $2);
   $text .= ".Pp\n" if defined $comment && $code eq '' && !$first;
   $text .= literal($code) if $code ne '';
   $text .= prose($comment) if defined $comment;
   $first = 0;
}
my $seeAlso = $name eq 'tessel-program' ? '.Xr tessel-daemon 8' : ".Xr tessel-program 3 ,\n.Xr tessel-daemon 8";
$text .= ".Sh SEE ALSO\n$seeAlso\n";
open(my $out, '>', $page) or die "$page: $!\n";
print $out $text;
close $out or die "$page: $!\n";
