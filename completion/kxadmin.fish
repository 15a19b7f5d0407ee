# Completion of kxadmin and kxadmin-strict for fish. Asks no server.

# The words in front of the cursor, from the command word on: behind the options of kxadmin-strict.
function __kxadmin_words
    set -l words (commandline -opc)
    set -l strict (string match -r 'kxadmin-strict$' -- $words[1])
    set words $words[2..]
    while set -q strict[1]; and string match -q -- '--*' $words[1]
        contains -- $words[1] --tries --password-file; and set words $words[2..]
        set words $words[2..]
    end
    set -q words[1]; and printf '%s\n' $words
end

# Whether the command is one of the arguments, by the letters that the program knows it by.
function __kxadmin_in
    set -l words (__kxadmin_words)
    set -l letters (string lower -- $words[1] | string match -r '^(?:sta|sto|cop|[olbt])')
    and string match -q -- "$letters*" $argv
end

# Whether the command has fewer arguments than the given number that are no modifiers.
function __kxadmin_lacks
    set -l words (__kxadmin_words)
    set -l value
    for word in $words[2..]
        if test -n "$value"; and begin
                test "$value" != p; or not string match -q -- '-*' $word
            end
            set value
        else if not set value (string match -rg '^-[hoqbp]*([PsklrtcZfp])$' -- $word)
            string match -q -- '-?*' $word; or set argv[1] (math $argv[1] - 1)
        end
    end
    test $argv[1] -gt 0
end

for program in kxadmin kxadmin-strict
    complete -c $program -f
    set -l word complete -c $program -n 'test (count (__kxadmin_words)) -eq 0' -a
    $word stat -d 'Display server statistics'
    $word opts -d 'Display server options or set the logging level'
    $word list -d 'List the server connections'
    $word stop -d 'Stop the server or end a connection'
    $word copy -d 'Copy a repository'
    $word test -d 'Test a repository on the server'
    $word bench -d 'Measure reads'
    $word help -d 'Display the usage text'

    set -l modifier complete -c $program -n
    $modifier '__kxadmin_in stat opts list stop copy test bench' -s P -x -d 'Port'
    $modifier '__kxadmin_in stat opts list stop copy test bench' -s h -d 'Usage text'
    $modifier '__kxadmin_in opts' -s s -x -a '0\tInformation 1\tWarning 2\tError 3\tDebug' -d 'Set the logging level'
    $modifier '__kxadmin_in opts stop copy' -s p -x -d Password
    $modifier '__kxadmin_in list' -s s -x -d 'Statistics of a connection'
    $modifier '__kxadmin_in list' -s l -x -d 'Locks of a connection'
    $modifier '__kxadmin_in stop' -s k -x -d 'End a connection'
    $modifier '__kxadmin_in stop' -s Z -x -a 100 -d 'Do not ask about connections'
    $modifier '__kxadmin_in copy' -s f -x -a '(__fish_complete_command)' -d 'System command'
    $modifier '__kxadmin_in copy' -s o -d Overwrite
    $modifier '__kxadmin_in copy' -s q -d Quiet
    $modifier '__kxadmin_in copy' -s b -d 'Do not check the free space'
    $modifier '__kxadmin_in copy' -s Z -x -a 99 -d 'Do not check the free space'
    $modifier '__kxadmin_in test' -s r -x -d Repository
    $modifier '__kxadmin_in test' -s f -r -F -d 'Report file'
    $modifier '__kxadmin_in bench' -s c -x -d 'Largest read in bytes'
    $modifier '__kxadmin_in bench' -s s -x -d 'Bytes read of each size'
    $modifier '__kxadmin_in bench' -s t -x -d 'Scratch file on the server'
    $modifier '__kxadmin_in bench' -s l -r -F -d 'Results file'
    $modifier '__kxadmin_in stat opts list stop test bench; and __kxadmin_lacks 1' -a '(__fish_print_hostnames) localhost' -d Host
    $modifier '__kxadmin_in copy; and __kxadmin_lacks 2' -a '(__fish_print_hostnames): localhost:' -d Host
end

set -l option complete -c kxadmin-strict -n 'test (count (__kxadmin_words)) -eq 0' -l
$option tries -x -a '(seq 30)' -d 'Attempts to connect'
$option password-file -r -F -d 'Its first line is the password'
$option verify -d 'Compare the files after a copy'
$option progress -d 'Show progress without a terminal too'
$option version -d 'Show the version'
$option help -d 'Show the options'
