# fish completion for stillow

function __stillow_names # name or domain, then sites or groups
    stillow $argv[2] list --json 2>/dev/null | string match --all --regex --groups-only "\"$argv[1]\":\"([^\"\\\\]*)\""
end

set --local commands start add extend status watch acknowledge validate explain sites groups rpc removal-check doctor
set --local edits add remove list import

complete --command stillow --no-files
complete --command stillow --long-option help --short-option h --description 'Print a summary'
complete --command stillow --condition "not __fish_seen_subcommand_from $commands" --long-option version --description 'Print the version'

complete --command stillow --condition __fish_use_subcommand --arguments start --description 'Start a Commitment: block sites for a time'
complete --command stillow --condition __fish_use_subcommand --arguments add --description 'Add sites to the running Commitment'
complete --command stillow --condition __fish_use_subcommand --arguments extend --description 'Move the end of the Commitment later'
complete --command stillow --condition __fish_use_subcommand --arguments status --description 'Show what is blocked and for how long'
complete --command stillow --condition __fish_use_subcommand --arguments watch --description 'Show the time that is left and every change'
complete --command stillow --condition __fish_use_subcommand --arguments acknowledge --description 'Clear the message of a Commitment that has ended'
complete --command stillow --condition __fish_use_subcommand --arguments validate --description 'Test from end to end that the filter really blocks'
complete --command stillow --condition __fish_use_subcommand --arguments explain --description 'Say how a text is understood as a site'
complete --command stillow --condition __fish_use_subcommand --arguments sites --description 'Keep a collection of sites to choose from'
complete --command stillow --condition __fish_use_subcommand --arguments groups --description 'Keep groups of sites'
complete --command stillow --condition __fish_use_subcommand --arguments rpc --description 'Pass one call to the daemon as it is'
complete --command stillow --condition __fish_use_subcommand --arguments removal-check --description 'Say whether Stillow may be removed now'
complete --command stillow --condition __fish_use_subcommand --arguments doctor --description 'Find out what is wrong'

complete --command stillow --condition "__fish_seen_subcommand_from sites groups; and not __fish_seen_subcommand_from $edits" --arguments "$edits"

complete --command stillow --condition "__fish_seen_subcommand_from $commands" --long-option json --description 'Print a record'
complete --command stillow --condition '__fish_seen_subcommand_from start add sites' --long-option group --exclusive --arguments '(__stillow_names name groups)' --description 'The sites of a group'
complete --command stillow --condition '__fish_seen_subcommand_from start add; and not __fish_seen_subcommand_from sites groups' --long-option all --description 'Your whole collection'
complete --command stillow --condition '__fish_seen_subcommand_from start' --long-option for --exclusive --arguments '15m 30m 45m 60m 90m 2h 4h 8h' --description 'How long'
complete --command stillow --condition '__fish_seen_subcommand_from extend' --long-option by --exclusive --arguments '15m 30m 45m 60m' --description 'By how much'
complete --command stillow --condition '__fish_seen_subcommand_from start extend' --long-option until --exclusive --description 'Until when'
complete --command stillow --condition '__fish_seen_subcommand_from start add extend; and not __fish_seen_subcommand_from sites groups' --long-option yes --description 'Do not ask'
complete --command stillow --condition '__fish_seen_subcommand_from status' --long-option watch --description 'Go on'

complete --command stillow --condition '__fish_seen_subcommand_from start add explain remove' --arguments '(__stillow_names domain sites)'
complete --command stillow --condition '__fish_seen_subcommand_from groups; and __fish_seen_subcommand_from add remove import' --arguments '(__stillow_names name groups)'
complete --command stillow --condition '__fish_seen_subcommand_from import' --force-files
complete --command stillow --condition '__fish_seen_subcommand_from rpc' --arguments 'status activate strengthen extend subscribeToStatusChanges validateEnforcement acknowledgeExpiry armFilterConfiguration announceUserInterface'
