# Completion of kxsandbox for fish.

# Completes the command behind --.
function __kxsandbox_command
    set -l words (commandline -opc)
    set -l dashes (contains -i -- -- $words)
    set words (string escape -- $words[(math $dashes + 1)..]) (commandline -ct)
    complete -C (string join -- ' ' $words)
end

complete -c kxsandbox -f
complete -c kxsandbox -n 'contains -- -- (commandline -opc)' -a '(__kxsandbox_command)'
set -l option complete -c kxsandbox -n 'not contains -- -- (commandline -opc)'
$option -s a -x -a '127.0.0.2 127.0.0.3 127.0.0.4' -d 'Listen on this loopback address too'
$option -s A -x -a '127.0.0.2 127.0.0.3 127.0.0.4' -d 'Listen on this one instead of 127.0.0.1'
$option -s P -x -d 'Port, 0 for a free one'
$option -s d -x -a '(__fish_complete_directories)' -d 'Directory that holds the files'
$option -s p -x -d "The administrator's password"
$option -s t -x -a '0\tKXSRV 1\tPXSRV 2\tunnamed 3\tunnamed' -d 'Server type'
$option -s m -x -d 'Data limit that clients are told'
$option -s c -x -d 'Most connections at a time'
$option -s h -l help -d 'Show the usage text'
$option -s V -l version -d 'Show the version'
$option -a -- -d 'Serve while a command runs'
