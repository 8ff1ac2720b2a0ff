#!/usr/bin/perl
# texts.pl FILE...: every text that the sources write to syslog or to the console, one a line, as it
# stands in the source: adjacent literals joined, a "%s" whose argument is a literal filled in, the
# line feed at the end left out. Before each text its priority ("console" and "stderr" for what is
# not logged) and a tab. Fails on a call that it cannot read.
use strict;
use warnings;

my $literal = qr/"(?:[^"\\]|\\.)*"/;

sub joined {
  my ($literals) = @_;
  my $text = join '', $literals =~ /"((?:[^"\\]|\\.)*)"/g;
  $text =~ s/\\n/\n/g;
  $text =~ s/\\(.)/$1/g;
  return $text;
}

# What writes, and the other ways to do so, which this script could not read.
my $writer = qr/\b(?:syslog|traceLine|printf|fprintf|fputs)\s*\(/;
my $refused = qr/\b(?:cerr|clog|cout|perror|vsyslog|v(?:f|d)?printf|dprintf|f?putc|putchar|puts)\b/;
# The definition of traceLine() and the time stamp that it begins with.
my $implementation = qr{/app/util/Console\.(?:h|cpp)$};

my ($calls, $understood) = (0, 0);
my %seen;
for my $file (@ARGV) {
  open my $in, '<', $file or die "$file: $!\n";
  my $source = do { local $/; <$in> };
  $source =~ s{^\s*//.*$}{}mg;
  next if $file =~ $implementation;
  die "$file: a line is written by $1\n" if $source =~ /($refused)/;
  $calls += () = $source =~ /$writer/g;
  while ($source =~ m{
      \b(?: (syslog) \s*\( [\w\s|]*? LOG_(\w+) \s*, \s*
        | (?:std::)?(printf|traceLine|fputs) \s*\( \s*
        | (?:std::)?(fprintf) \s*\( \s* stderr \s*, \s* )
      ( $literal (?:\s* $literal)* )
      ( (?: \s*,\s* $literal )* )
      \s* (, \s* stderr)? }gx) {
    my ($logged, $priority, $format, $arguments) = ($1, $2, $5, $6);
    ++$understood;
    my $where = $logged ? lc $priority : $4 || $7 ? 'stderr' : 'console';
    my $text = joined($format);
    for my $argument ($arguments =~ /($literal)/g) {
      my $value = joined($argument);
      $text =~ s/%s/$value/;
    }
    $text =~ s/\s+$//;
    print "$where\t$text\n" unless $seen{"$where\t$text"}++;
  }
}
# A call in a form that the pattern above does not know must not go unnoticed.
die "$understood of $calls calls understood\n" if $understood != $calls;
