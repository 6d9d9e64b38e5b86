#!/usr/bin/perl
# Runs the SQL examples of README.md and compares each result with the one the README states.
#
# What runs:
# - ```sql blocks, in order, in one psql session on a database with the extension created; a
#   statement ends with ';', a line starting with '\' is a psql command (\set).
# - ```sql install blocks (installing, relocating, upgrading the extension): each in a database of
#   its own, created without the extension.
# - `expression` → result in the README's text and tables, where the expression contains a call
#   or a literal: run as SELECT expression.
# What is compared, for SELECT statements:
# - `SELECT ...;  -- result  commentary` (or a result on the next comment line): the row's columns,
#   separated by ', ' (true/false stand for t/f). The result ends at two spaces, ': ' or ' ('.
# - a SELECT over several lines with a `-- result` after each column: one column each.
# - comment lines after the statement that hold a psql table (a header, a line of dashes, rows):
#   the aligned output of psql, line by line.
# - `-- ERROR: message`: the statement fails with that message; `-- same...`: the same result as
#   the SELECT before it.
# - no stated result: the statement must succeed.
# Not run: ```sh blocks (shell commands: building, packaging, the scripts; test/shell/vpath.sh,
# package.sh and scripts/demo.sh run their equivalents) and the fragments of the GiST tables
# (`WHERE ...` conditions, not statements).
# Setup (below, @setup): the tables that examples use without creating them: orders (customer,
# country, product_id), events (user_id int4), grants (id_range int8).
#
# Usage: perl readme_examples.pl README.md   (PG* variables name the server; psql on the PATH)
# Prints one line when every example gives its stated result, each difference otherwise.
use strict;
use warnings;

my $readme = shift or die "usage: $0 README.md\n";

my @setup = (
    "CREATE TABLE orders (customer text, country text, product_id int4)",
    "INSERT INTO orders VALUES ('ana', 'pt', 3), ('ana', 'pt', 4), ('ana', 'pt', 9), ('bo', 'se', 1), ('bo', 'se', 2)",
    "CREATE TABLE events (user_id int4)",
    "INSERT INTO events SELECT g % 1000 FROM generate_series(1, 5000) g",
    "CREATE TABLE grants (id_range int8)",
    "INSERT INTO grants SELECT zm_range_pack(g, g + 10) FROM generate_series(1, 5000, 7) g",
);

# ---- reading the README ----

my @sessions = ({ name => 'main', extension => 1, statements => [] });
my @problems;

open my $fh, '<', $readme or die "$readme: $!\n";
my @lines = <$fh>;
close $fh;
chomp @lines;

# Splits a line into its SQL and its trailing comment (a '--' outside single quotes).
sub split_comment {
    my ($line) = @_;
    my $quoted = 0;
    for (my $i = 0; $i < length $line; $i++) {
        my $c = substr($line, $i, 1);
        if ($c eq "'") { $quoted = !$quoted; next; }
        if (!$quoted && substr($line, $i, 2) eq '--') {
            return (substr($line, 0, $i), substr($line, $i + 2));
        }
    }
    return ($line, undef);
}

# The stated result: ERROR, same, or the columns of one row.
sub expectation {
    my ($text) = @_;
    $text =~ s/^\s+//;
    $text =~ s/\s+$//;
    return { kind => 'error', message => $1 } if $text =~ /^ERROR:\s*(.*)$/;
    return { kind => 'same' } if $text =~ /^same\b/;
    $text =~ s/(\s{2,}|: | \().*$//;
    return { kind => 'values', columns => [split /, /, $text] };
}

sub add_statement {
    my ($session, $statement) = @_;
    push @{ $session->{statements} }, $statement;
}

my ($block, $block_session, $pending, $last_select) = (undef, undef, [], undef);
for my $n (0 .. $#lines) {
    my $line = $lines[$n];
    my $lineno = $n + 1;
    if (!defined $block) {
        if ($line =~ /^```(\S*)(?:\s+(\S+))?\s*$/ && $1 ne '') {
            $block = $1 . (defined $2 ? " $2" : '');
            if ($block eq 'sql install') {
                $block_session = { name => "install block at line $lineno", extension => 0, statements => [] };
                push @sessions, $block_session;
            } elsif ($block eq 'sql') {
                $block_session = $sessions[0];
            } else {
                $block_session = undef;
            }
            ($pending, $last_select) = ([], undef);
            next;
        }
        # `expression` → result, in text and tables
        while ($line =~ /`([^`]*[('][^`]*)` → (?:`([^`]+)`|([\w-]+))/g) {
            my ($expression, $result) = ($1, defined $2 ? $2 : $3);
            $expression =~ s/\\\|/|/g;
            add_statement($sessions[0], { line => $lineno, sql => "SELECT $expression;",
                                          expect => { kind => 'values', columns => [$result] } });
        }
        next;
    }
    if ($line =~ /^```\s*$/) {
        push @problems, "line $lineno: a statement without its ';' ends the block" if @$pending;
        ($block, $block_session) = (undef, undef);
        next;
    }
    next unless $block_session;

    if ($line =~ /^\s*$/) {
        push @problems, "line $lineno: a blank line inside a statement" if @$pending;
        $last_select = undef;
        next;
    }
    if ($line =~ /^\\/) {
        add_statement($block_session, { line => $lineno, sql => $line, meta => 1 });
        $last_select = undef;
        next;
    }
    if ($line =~ /^--(.*)$/ && !@$pending) {
        # a comment line: a result of the SELECT just before it, or a plain comment
        my $text = $1;
        if ($last_select && !$last_select->{expect}) {
            $text =~ s/^ //;
            push @{ $last_select->{following} }, $text;
        }
        next;
    }
    my ($code, $comment) = split_comment($line);
    push @$pending, { code => $code, comment => $comment, line => $lineno };
    next unless $code =~ /;\s*$/;

    my $sql = join("\n", map { $_->{code} } @$pending);
    my $statement = { line => $pending->[0]{line}, sql => $sql };
    if ($sql =~ /^\s*SELECT\b/i) {
        my @comments = grep { defined $_->{comment} } @$pending;
        if (defined $pending->[-1]{comment} && @comments == 1) {
            $statement->{expect} = expectation($pending->[-1]{comment});
        } elsif (@comments > 1) {
            $statement->{expect} = { kind => 'values',
                                     columns => [map { @{ expectation($_->{comment})->{columns} || [] } } @comments] };
        } else {
            $statement->{following} = [];
        }
        $last_select = $statement;
    } else {
        $last_select = undef;
    }
    add_statement($block_session, $statement);
    $pending = [];
}

# Results stated on the comment lines after a statement.
for my $session (@sessions) {
    for my $s (@{ $session->{statements} }) {
        next unless $s->{following};
        my @f = @{ delete $s->{following} };
        if (@f >= 2 && $f[1] =~ /^-+(\+-+)*$/) {
            $s->{expect} = { kind => 'table', lines => \@f };
        } elsif (@f == 1) {
            $s->{expect} = expectation($f[0]);
        } elsif (@f == 0) {
            $s->{expect} = { kind => 'runs' };
        } else {
            push @problems, "line $s->{line}: several comment lines after a SELECT, but no table";
        }
    }
}

# ---- running ----

sub quote_ident { my ($s) = @_; $s =~ s/"/""/g; return qq("$s"); }

sub psql {
    my ($database, $script) = @_;
    my $file = "/tmp/kestrava-readme-$$.sql";
    open my $out, '>', $file or die "$file: $!\n";
    print $out $script;
    close $out;
    my $output = `psql -X -q -d $database -f $file 2>/dev/null`;
    unlink $file;
    return $output;
}

my ($checked, $ran) = (0, 0);
for my $session (@sessions) {
    my @statements = @{ $session->{statements} };
    next unless @statements;
    my $database = "kestrava_readme_" . ($session->{extension} ? 'main' : 'install');
    system("dropdb --if-exists $database 2>/dev/null; createdb $database") == 0 or die "createdb $database failed\n";
    my $script = "\\set ON_ERROR_STOP 0\n\\pset null NULL\n\\pset footer off\n";
    if ($session->{extension}) {
        $script .= "CREATE EXTENSION kestrava_range_operators;\n";
        $script .= "$_;\n" for @setup;
    }
    for my $i (0 .. $#statements) {
        my $s = $statements[$i];
        my $table = $s->{expect} && $s->{expect}{kind} eq 'table';
        $script .= $table ? "\\pset format aligned\n\\pset tuples_only off\n"
                          : "\\pset format unaligned\n\\pset tuples_only on\n\\pset fieldsep '|'\n";
        $script .= "\\echo '\@\@begin $i'\n$s->{sql}\n\\echo '\@\@end $i' :ERROR\n\\echo '\@\@message $i' :LAST_ERROR_MESSAGE\n";
    }
    my $output = psql($database, $script);
    system("dropdb $database") == 0 or die "dropdb $database failed\n";

    my (%result, %error, %message, $current);
    for my $line (split /\n/, $output) {
        if ($line =~ /^\@\@begin (\d+)$/) { $current = $1; $result{$current} = []; next; }
        if ($line =~ /^\@\@end (\d+) (\w+)$/) { $error{$1} = $2 eq 'true'; $current = undef; next; }
        if ($line =~ /^\@\@message (\d+) (.*)$/) { $message{$1} = $2; next; }
        push @{ $result{$current} }, $line if defined $current;
    }

    my $previous;
    for my $i (0 .. $#statements) {
        my $s = $statements[$i];
        my $where = "README.md line $s->{line} ($session->{name})";
        my $sql = $s->{sql} =~ s/\s+/ /gr;
        $ran++;
        if (!exists $error{$i}) {
            push @problems, "$where: no outcome for: $sql";
            next;
        }
        next if $s->{meta};
        my $expect = $s->{expect} || { kind => 'runs' };
        my @got = @{ $result{$i} || [] };
        if ($expect->{kind} eq 'error') {
            $checked++;
            if (!$error{$i}) {
                push @problems, "$where: $sql\n    succeeded (@got), the README states ERROR: $expect->{message}";
            } elsif ($message{$i} ne $expect->{message}) {
                push @problems, "$where: $sql\n    failed with \"$message{$i}\", the README states \"$expect->{message}\"";
            }
            next;
        }
        if ($error{$i}) {
            push @problems, "$where: $sql\n    failed: $message{$i}";
            next;
        }
        if ($expect->{kind} eq 'values') {
            $checked++;
            my @want = map { $_ eq 'true' ? 't' : $_ eq 'false' ? 'f' : $_ } @{ $expect->{columns} };
            my @have = @got == 1 ? split(/\|/, $got[0], -1) : ();
            if (@got != 1 || join("\x01", @have) ne join("\x01", @want)) {
                push @problems, "$where: $sql\n    gives (" . join(' / ', @got) . "), the README states (" . join(', ', @{ $expect->{columns} }) . ")";
            }
        } elsif ($expect->{kind} eq 'table') {
            $checked++;
            my @want = map { s/\s+$//r } @{ $expect->{lines} };
            my @have = map { s/\s+$//r } @got;
            pop @have while @have && $have[-1] eq '';   # psql ends a table with an empty line
            if (join("\n", @have) ne join("\n", @want)) {
                push @problems, "$where: $sql\n    gives\n" . join("\n", map { "      $_" } @got)
                                . "\n    the README states\n" . join("\n", map { "      $_" } @{ $expect->{lines} });
            }
        } elsif ($expect->{kind} eq 'same') {
            $checked++;
            if (!$previous || join("\n", @got) ne join("\n", @$previous)) {
                push @problems, "$where: $sql\n    gives (@got), the README states the result of the SELECT before it";
            }
        }
        $previous = \@got if $sql =~ /^\s*SELECT/i;
    }
}

if (@problems) {
    print STDERR "readme_examples: " . scalar(@problems) . " examples differ from README.md:\n";
    print STDERR "  $_\n" for @problems;
    exit 1;
}
printf "readme_examples: %d statements of README.md ran, %d stated results matched (%d databases)\n",
    $ran, $checked, scalar(grep { @{ $_->{statements} } } @sessions);
