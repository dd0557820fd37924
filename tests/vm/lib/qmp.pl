#!/usr/bin/perl
# qmp.pl SOCKET 'HMP COMMAND LINE'
# Runs one human-monitor command (device_del, device_add, info ...) through
# QEMU's QMP socket and prints its text. Exits 1 when QEMU reports an error.
# perl-base only: Debian's minimal systems have no JSON module.
use strict;
use warnings;
use IO::Socket::UNIX;

my ($path, $line) = @ARGV;
die "usage: qmp.pl SOCKET COMMAND\n" unless defined $line;

my $sock = IO::Socket::UNIX->new(Type => SOCK_STREAM(), Peer => $path)
    or die "qmp.pl: cannot connect to $path: $!\n";

sub json_string {
    my ($s) = @_;
    $s =~ s/(["\\])/\\$1/g;
    $s =~ s/\n/\\n/g;
    return "\"$s\"";
}

sub unjson {
    my ($s) = @_;
    my %esc = (n => "\n", r => "\r", t => "\t", '"' => '"', '\\' => '\\', '/' => '/', b => "\b", f => "\f");
    $s =~ s/\\u([0-9a-fA-F]{4})/chr(hex($1))/ge;
    $s =~ s/\\(.)/$esc{$1}/g;
    return $s;
}

# Replies are one JSON object per line; events may come in between.
sub reply {
    while (my $r = <$sock>) {
        next if $r =~ /"event"\s*:/;
        return $r if $r =~ /"(return|error)"\s*:/;
    }
    die "qmp.pl: QEMU closed the monitor\n";
}

<$sock>;   # greeting
print $sock qq({"execute": "qmp_capabilities"}\n);
reply();
print $sock '{"execute": "human-monitor-command", "arguments": {"command-line": ' . json_string($line) . "}}\n";
my $r = reply();
if ($r =~ /"desc"\s*:\s*"((?:[^"\\]|\\.)*)"/) {
    print "Error: ", unjson($1), "\n";
    exit 1;
}
my $text = $r =~ /"return"\s*:\s*"((?:[^"\\]|\\.)*)"/ ? unjson($1) : "";
$text =~ s/\r//g;
print $text;
exit($text =~ /^Error/ ? 1 : 0);
