# Evaluates what gcov wrote to standard output, with branches: usage: perl coverage.pl GCOV-OUTPUT [HTML-FILE]
#
# A source that several objects have in common, as a header, appears several times: its counts are added, line by line
# and branch by branch.

use strict;
use warnings;

my ($input, $html) = @ARGV;
my (%lines, %text, %branches);

sub read_counts {
   my ($file, $line);
   open(my $gcov, '<', $input) or die "$input: $!\n";
   while (<$gcov>) {
      if (/^ *-: +0:Source:(.*)$/) {
         my $source = $1;
         $file = $source =~ m{^(?:daemon|location|client|lib|platform|tools)/} ? $source : undef;
      } elsif (!defined $file) {
         next;
      } elsif (/^ *([-#=\d]+)\*?: *([1-9]\d*):(.*)$/) {
         my $count = $1;
         ($line, $text{$file}{$2}) = ($2, $3);
         $lines{$file}{$line} = ($lines{$file}{$line} // 0) + ($count =~ /^\d/ ? $count : 0) if $count ne '-';
      } elsif (/^branch +(\d+) (?:never executed|taken (\d+))(?! \(throw\))/ && !/\(throw\)/) {
         $branches{$file}{$line}{$1} = ($branches{$file}{$line}{$1} // 0) + ($2 // 0);
      }
   }
}

# The number of the file's lines and branches, and of those that were run or taken.
sub figures {
   my ($file) = @_;
   my @of = map { values %$_ } values %{$branches{$file} // {}};
   my @counts = values %{$lines{$file}};
   return (scalar(grep { $_ } @counts), scalar(@counts), scalar(grep { $_ } @of), scalar(@of));
}

sub row {
   my ($name, $run, $all, $taken, $of) = @_;
   my $percent = sub { $_[1] ? sprintf('%5.1f %%', 100 * $_[0] / $_[1]) : '      -' };
   printf "%-44s %5d of %5d lines %s  %5d of %5d branches %s\n", $name, $run, $all, $percent->($run, $all), $taken, $of,
      $percent->($taken, $of);
}

sub print_table {
   my (%folders, @whole);
   for my $file (sort keys %lines) {
      my @figures = figures($file);
      my $folder = $file =~ s{/[^/]*$}{}r;
      for my $i (0 .. 3) {
         $folders{$folder}[$i] += $figures[$i];
         $whole[$i] += $figures[$i];
      }
   }
   for my $folder (sort keys %folders) {
      row("$folder/", @{$folders{$folder}});
      row("   $_", figures($_)) for grep { s{/[^/]*$}{}r eq $folder } sort keys %lines;
   }
   row('all', @whole);
}

# What there is to say of one line; nothing if all of it was run.
sub shortfall {
   my ($file, $line) = @_;
   return '' unless defined $lines{$file}{$line};
   return 'not run' unless $lines{$file}{$line};
   my $of = $branches{$file}{$line} // {};
   my @never = grep { !$of->{$_} } sort { $a <=> $b } keys %$of;
   return @never ? 'branch ' . join(', ', @never) . ' of ' . keys(%$of) . ' not taken' : '';
}

sub print_missed {
   my ($folder) = @_;
   print "\nNot run of $folder/:\n";
   for my $file (grep { m{^$folder/} } sort keys %lines) {
      for my $line (sort { $a <=> $b } keys %{$lines{$file}}) {
         my $what = shortfall($file, $line) or next;
         print "$file:$line: $what: ", $text{$file}{$line} =~ s/^\s+//r, "\n";
      }
   }
}

sub write_html {
   open(my $out, '>', $html) or die "$html: $!\n";
   print $out '<!DOCTYPE html><meta charset="utf-8"><title>Coverage</title><style>pre { margin: 0 }',
      '.not { background: #fbb } .part { background: #fe9 }</style>', "\n";
   for my $file (sort keys %lines) {
      my ($run, $all, $taken, $of) = figures($file);
      print $out "<details><summary>$file: $run of $all lines, $taken of $of branches</summary>\n";
      for my $line (sort { $a <=> $b } keys %{$text{$file}}) {
         my $what = shortfall($file, $line);
         my $class = $what eq '' ? '' : $what eq 'not run' ? ' class="not"' : ' class="part"';
         my $source = $text{$file}{$line} =~ s/&/&amp;/gr =~ s/</&lt;/gr;
         printf $out "<pre%s title=\"%s\">%6s %5d %s</pre>\n", $class, $what, $lines{$file}{$line} // '', $line, $source;
      }
      print $out "</details>\n";
   }
   close($out) or die "$html: $!\n";
   print "\n$html\n";
}

read_counts();
die "$input holds no counts\n" unless %lines;
print_table();
print_missed('daemon');
write_html() if defined $html;
