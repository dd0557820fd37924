#!/usr/bin/perl
# Prints the SCSI slices of /sys as fixture records (README.md). Perl rather than
# a shell loop: each program started in the VM costs a tenth of a second.
use strict;
use warnings;
use Cwd qw(abs_path);

my %records;   # path -> record line

sub escape {
    my ($s) = @_;
    $s =~ s/\n\z//;
    $s =~ s/\\/\\\\/g;
    $s =~ s/\n/\\n/g;
    $s =~ s/\t/\\t/g;
    $s =~ s/([\x00-\x1f\x7f-\xff])/sprintf("\\x%02x", ord($1))/ge;
    return $s;
}

sub check_path {
    my ($p) = @_;
    die "dump_sysfs: blank in path '$p'\n" if $p =~ /\s/;
}

sub add_link {
    my ($p) = @_;
    check_path($p);
    my $t = readlink($p);
    $records{$p} = "l $p $t" if defined $t;
}

sub add_dir {
    my ($p) = @_;
    check_path($p);
    $records{$p} = "d $p" if -d $p && !-l $p;
}

# Attributes without read permission (scan, delete) are only listed.
sub add_file {
    my ($p) = @_;
    return unless -f $p;
    check_path($p);
    my $mode = (stat $p)[2];
    if (!($mode & 0444)) {
        $records{$p} = "w $p";
        return;
    }
    open(my $fh, '<:raw', $p) or return;
    local $/;
    my $v = <$fh>;
    close $fh;
    $records{$p} = "f $p " . escape(defined $v ? $v : '');
}

sub entries {
    my ($dir, $pattern) = @_;
    opendir(my $dh, $dir) or return ();
    my @e = sort grep { /$pattern/ } readdir $dh;
    closedir $dh;
    return map { "$dir/$_" } @e;
}

# Hosts.
add_dir('/sys/class/scsi_host');
for my $link (entries('/sys/class/scsi_host', qr/^host\d+$/)) {
    add_link($link);
    my $real = abs_path($link);
    add_dir($real);
    add_link("$real/device");
    add_file("$real/$_") for qw(proc_name unique_id state scan);
}

# Disks, their SCSI devices and partitions.
add_dir('/sys/block');
for my $link (entries('/sys/block', qr/^sd[a-z]+$/)) {
    add_link($link);
    my $disk = abs_path($link);
    (my $name = $disk) =~ s{.*/}{};
    add_dir($disk);
    add_file("$disk/$_") for qw(dev size ro removable);
    add_link("$disk/device");
    my $dev = abs_path("$disk/device");
    (my $hctl = $dev) =~ s{.*/}{};
    add_dir($dev);
    add_file("$dev/$_") for qw(state vendor model rev type scsi_level wwid delete rescan);
    add_dir("$dev/scsi_disk/$hctl");
    add_dir("$dev/scsi_device/$hctl");
    add_dir("$dev/block/$name");
    for my $part (entries($disk, qr/^\Q$name\E\d+$/)) {
        add_dir($part);
        add_file("$part/$_") for qw(dev partition start size ro);
    }
}

# Index links, only those that lead into the slices above.
my %wanted = map { $_ => 1 } grep { !/\s/ } map { (split / /)[1] } values %records;
for my $dir (qw(/sys/dev/block /sys/class/scsi_disk /sys/class/scsi_device /sys/bus/scsi/devices)) {
    my @links = grep { my $t = abs_path($_); defined $t && $wanted{$t} } entries($dir, qr/^[^.]/);
    next unless @links;
    add_dir($dir);
    add_link($_) for @links;
}

# Links last, so that a replay from the top finds every target in place.
my @lines = values %records;
my @plain = sort { (split / /, $a)[1] cmp (split / /, $b)[1] } grep { !/^l / } @lines;
my @links = sort { (split / /, $a)[1] cmp (split / /, $b)[1] } grep { /^l / } @lines;
print "$_\n" for @plain, @links;
