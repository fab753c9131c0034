#!/usr/bin/perl
# Times msgconvert's library (Debian libemail-outlook-message-perl), run as a black box, on message files:
# every file turned into its MIME message text as msgconvert writes it, RUNS passes in one process.
# Usage: msg_msgconvert.pl RUNS FILE...   prints the mean milliseconds per pass.
use strict;
use warnings;
use Email::Outlook::Message;
use Time::HiRes qw(time);

my ($runs, @files) = @ARGV;
my $failed = 0;
sub pass {
    for my $file (@files) {
        my $ok = eval { Email::Outlook::Message->new($file)->to_email_mime->as_string; 1 };
        $failed++ unless $ok;
    }
}
{
    # The library warns about properties it does not know; the timing is what matters here.
    local $SIG{__WARN__} = sub { };
    pass();
    $failed = 0;
    my $start = time;
    pass() for 1 .. $runs;
    my $ms = (time - $start) * 1000 / $runs;
    printf "msgconvert (Email::Outlook::Message to MIME text): %.1f ms per pass over %d files (mean of %d)%s\n",
        $ms, scalar @files, $runs, $failed ? sprintf(", %d files refused per pass", $failed / $runs) : "";
}
