# The panel tool run end to end on the sample panel: each run's output (standard output and error,
# then its exit status) must match the expression.
set(EGW_RUN_DIR ${CMAKE_CURRENT_BINARY_DIR}/egwRuns)
file(MAKE_DIRECTORY ${EGW_RUN_DIR})
file(WRITE ${EGW_RUN_DIR}/badPanel.json
     "{\"version\": 1, \"root\": {\"type\": \"Panel\", \"properties\": {\"Adress\": 1}}}\n")

file(WRITE ${EGW_RUN_DIR}/notPanel.json
     "{\"version\": 1, \"root\": {\"type\": \"OpticalSmokeDetector\"}}\n")
# The two-type library of docs/type-library.md (its members that matter here), and the same with a
# GUID counter that has no default, which only the gateway itself notices.
set(two_types_head "{\"stateValues\": [{\"id\": \"0x60001\", \"name\": \"Normal\"}], \"stateGroups\": [{\"id\": \"0x80001\", \"name\": \"FireAlarmState\", \"values\": [\"0x60001\"], \"default\": \"0x60001\"}], \"types\": [{\"id\": \"0x70169\", \"name\": \"Panel\", \"properties\": [{\"id\": \"0x30004\", \"name\": \"Address\", \"storage\": 6, \"default\": \"1\"}, {\"id\": \"0x301a4\", \"name\": \"Guid\", \"storage\": 4, \"default\": \"0\"}")
set(two_types_tail "], \"relations\": [{\"type\": \"0x70048\", \"kind\": 0}], \"stateGroups\": [\"0x80001\"]}, {\"id\": \"0x70048\", \"name\": \"OpticalSmokeDetector\", \"properties\": [{\"id\": \"0x30004\", \"name\": \"Address\", \"storage\": 6, \"default\": \"0\"}], \"stateGroups\": [\"0x80001\"]}]}\n")
file(WRITE ${EGW_RUN_DIR}/twoTypes.json "${two_types_head}${two_types_tail}")
file(WRITE ${EGW_RUN_DIR}/counterWithoutDefault.json
     "${two_types_head}, {\"id\": \"0x301a6\", \"name\": \"AvailableGuid\", \"storage\": 4}${two_types_tail}")
file(WRITE ${EGW_RUN_DIR}/twoTypePanel.json
     "{\"version\": 1, \"root\": {\"type\": \"Panel\", \"children\": [{\"type\": \"OpticalSmokeDetector\"}]}}\n")

# A cross build runs the tool through its emulator. In the scripts of egw_script the shell
# function `egw` runs the tool.
string(JOIN " " EGW_RUN_EMULATOR ${CMAKE_CROSSCOMPILING_EMULATOR})
set(EGW_SHELL_FUNCTION "egw() { ${EGW_RUN_EMULATOR} \"$<TARGET_FILE:egw>\" \"$@\"; }")

# No run may show an assertion report or a path of the build machine.
set(EGW_RUN_FAIL "Assertion|\\.cpp:[0-9]|${PROJECT_SOURCE_DIR}")

# The expected output as one regular expression: a semicolon in it would split the test property
# into several expressions, any one of which would pass the test.
function(egw_expect name expression)
  string(REPLACE ";" "[;]" expression "${expression}")
  set_tests_properties(egw_${name} PROPERTIES PASS_REGULAR_EXPRESSION "${expression}"
                       FAIL_REGULAR_EXPRESSION "${EGW_RUN_FAIL}")
endfunction()

function(egw_run name expression)
  string(REPLACE ";" " " arguments "${ARGN}")
  add_test(NAME egw_${name}
           COMMAND sh -c "${EGW_RUN_EMULATOR} \"$<TARGET_FILE:egw>\" ${arguments} 2>&1; echo \"exit status $?\""
           WORKING_DIRECTORY ${EGW_RUN_DIR})
  egw_expect(${name} "${expression}")
endfunction()

function(egw_script name expression script)
  add_test(NAME egw_${name}
           COMMAND sh -c "${EGW_SHELL_FUNCTION}; ${script}; echo \"exit status $?\""
           WORKING_DIRECTORY ${EGW_RUN_DIR})
  egw_expect(${name} "${expression}")
endfunction()

egw_run(demo
  "FIRE ALARM  OpticalSmokeDetector \"Reception, ceiling\"\n    ID string 01\\.001; FireAlarmState: Normal -> FireAlarm\n    category 7 \\(detector\\)\n    element #[0-9]+  address 1  ID 01\\.001  OpticalSmokeDetector  \"Reception, ceiling\"\n    parent  #[0-9]+  address 101  ID 01\\.0101  EvacuationArea  \"Evacuation zone 1\"\n    proxy   #[0-9]+  address 1  ID 01\\.0101  EvacuationZone  \"Evacuation zone 1\"\n    device  0x00100001\n\n\nSilenced: OutputState Silenced on #"
  demo)
egw_run(demo_silence
  "Silenced: OutputState Silenced on #[0-9]+\nDelivered event 0x03010005\n\nPanel display:\n  OUTPUT SILENCED  LoopSounder \"Corridor sounder, ground floor\"\n    ID string 01\\.001; OutputState: Activated -> Silenced\n.*exit status 0"
  demo)
egw_run(tree
  "RepeaterPanel #[0-9]+  ID 01\\.002\\.00A1B2C3  address 1.*UnitDisplay #[0-9]+  ID 01\\.002\\.00A1B2C3\\.03.*MainsInput #[0-9]+  ID 01\\.003\\.01.*RoutingArea #[0-9]+  ID 01\\.0012.*ControlGroup #[0-9]+  ID 01  address 1.*exit status 0"
  tree)
egw_run(show_base_sounder
  "DetectorBaseSounder #[0-9]+  ID 01\\.001  address 131.*category 12 \\(detector base sounder\\)\n  element #[0-9]+  address 1  .*proxy   #[0-9]+  address 1  ID 01\\.0101  EvacuationZone.*device  0x00100001\nexit status 0"
  show base-sounder-1-001)
egw_run(show_relations
  "0x20001 to InputZone #[0-9]+  ID 01\\.0001  address 1  \"Zone 1\"  \\[zone-ground\\]\n  0x20002 to EvacuationZone .*\\[evac-ground\\]"
  show det-1-001)
egw_run(json_get "\"property\": \"0x30005 DeviceId\",\n  \"value\": 10597059\n}\nexit status 0"
  --json get repeater-1 DeviceId)
egw_run(set_then_read "property: 0x30031 AlarmThreshold\nvalue: 60\nexit status 0"
  set det-1-001 AlarmThreshold 60)
egw_run(set_out_of_range
  "egw: property 0x30031 holds 0 to 255; 300 does not fit\nexit status 1"
  set det-1-001 AlarmThreshold 300)
egw_run(state_set "group: 0x80003 DisablementState\nvalue: 0x60007 Disabled\nexit status 0"
  state mcp-1-004 DisablementState Disabled)
egw_run(state_refused
  "egw: state group 0x80001 FireAlarmState cannot take 0x60007 Disabled\nexit status 1"
  state det-1-001 FireAlarmState Disabled)
egw_run(command "command: 0x14001\nstatus: 0\nexit status 0" command det-1-001 0x14001)
egw_run(command_refused "egw: the element's type has no command 0x14999\nexit status 1"
  command det-1-001 0x14999)
egw_run(events
  "PRE-ALARM .*FIRE ALARM .*OUTPUT ACTIVATED  LoopSounder.*category 8 \\(addressable sounder\\).*FAULT  .*OUTPUT RESET.*ALARM RESET.*FAULT CLEARED.*exit status 0"
  events)
egw_run(unknown_element "egw: no element has the uuid or key \"99999\"\nexit status 1" show 99999)
egw_run(json_error "\"error\": \"no element has the uuid or key \\\\\"nowhere\\\\\"\".*exit status 1" --json show nowhere)
egw_run(get_unknown_property
  "egw: element type 0x70048 OpticalSmokeDetector has no property 0x3000A SiteName\nexit status 1"
  get det-1-001 SiteName)
egw_run(value_not_a_number
  "egw: property 0x30031 holds 1 bytes: expected a whole number, got \"high\"\nexit status 1"
  set det-1-001 AlarmThreshold high)

# ---- Command-line errors: "egw: " and the word concerned, exit status 2, also as JSON ----------
egw_run(missing_argument "^egw: show: element is required.*\nexit status 2" show)
egw_run(unknown_command "^egw: unknown command \"frob\" \\(commands: demo, tree, .*\nexit status 2"
  frob)
egw_run(no_command "^egw: a command is required .*\nexit status 2" "")
egw_run(unknown_option "^egw: tree: unknown option \"--colour\"\nexit status 2" tree --colour)
egw_run(connect_without_port "^egw: tree: --connect: 127\\.0\\.0\\.1: expected HOST:PORT.*\nexit status 2"
  --connect 127.0.0.1 tree)
egw_run(level_without_password "^egw: --level 2 needs --password .*\nexit status 2"
  --connect 127.0.0.1:9 --level 2 tree)
egw_run(password_without_level "^egw: --password needs --level .*\nexit status 2"
  --connect 127.0.0.1:9 --password 2222 tree)
egw_run(panel_with_connect "^egw: --panel loads a panel in this process.*\nexit status 2"
  --connect 127.0.0.1:9 --panel twoTypePanel.json tree)
if(EGW_BUILD_SERVICE)
  # Nothing but egw's own message: no line of the RPC library's before it.
  egw_run(connect_refused "^egw: 127\\.0\\.0\\.1:9: connect\\(\\) failed: Connection refused\nexit status 1"
    --connect 127.0.0.1:9 tree)
endif()
egw_run(unexpected_word "^egw: show: unexpected word \"extra\"\nexit status 2"
  show det-1-001 extra)
egw_run(json_usage_errors
  "^{\n  \"error\": \"unknown command .*egw: unknown command .*exit status 2"
  --json frob)
egw_run(json_missing_file
  "^{\n  \"error\": \"tree: --panel: File does not exist: nowhere\\.json.*exit status 2"
  --json --panel nowhere.json tree)
egw_run(version "^egw ${PROJECT_VERSION}\nexit status 0" --version)

# ---- Panels the gateway could not number: a clear refusal, never an assertion report ----------
egw_run(root_not_a_panel
  "^egw: notPanel\\.json: /root/type: element type 0x70048 OpticalSmokeDetector cannot be the root: .* property 0x301A6 \\(AvailableGuid\\).*\nexit status 1"
  --panel notPanel.json tree)
egw_run(two_type_library
  "^egw: twoTypePanel\\.json: /root/type: element type 0x70169 Panel cannot be the root: .*\nexit status 1"
  --types twoTypes.json --panel twoTypePanel.json tree)
egw_run(gateway_report_is_refused
  "egw: the element gateway refused EGW_ELementServerManagerElementGUID on this panel .*\nexit status 1"
  --types counterWithoutDefault.json --panel twoTypePanel.json tree)

# ---- Output: standard output checked, generate's sizes and files, progress only on a terminal -
egw_script(output_lost "^egw: standard output: cannot be written: No space left on device\nexit status 1"
  "egw tree 2>&1 >/dev/full")
egw_run(generate_too_large
  "^egw: generate: --loops 65535 --devices 65535 make 5154131151 elements; egw generates at most 10000000\nexit status 2"
  generate --loops 65535 --devices 65535 -o large.json)
egw_run(generate_unwritable
  "^egw: missing/panel\\.json: cannot be written: No such file or directory\nexit status 1"
  generate --loops 1 --devices 1 -o missing/panel.json)
egw_script(generate_to_standard_output "^13\nno file named -\nexit status 0"
  "rm -f ./-; egw generate --loops 1 --devices 1 -o - | grep -c '\"type\"' && test ! -e ./- && echo no file named -")
egw_script(no_progress_without_terminal "^0 0\nexit status 0"
  "egw generate --loops 10 --devices 1000 -o quiet.json 2>generate.err >/dev/null && egw --panel quiet.json tree 2>tree.err >/dev/null && echo $(wc -c <generate.err) $(wc -c <tree.err)")
egw_script(progress_on_terminal "loading panel \\[#* *\\] +[0-9]+%.*printing tree \\[#* *\\] +[0-9]+%.*exit status 0"
  "egw generate --loops 10 --devices 1000 -o shown.json >/dev/null && script -qec \"${EGW_RUN_EMULATOR} $<TARGET_FILE:egw> --panel shown.json tree >/dev/null\" /dev/null")

# ---- Export: the tree written back loads as the same tree ---------------------------------------
egw_script(export_round_trip "^same tree\nexit status 0"
  "egw export -o exported.json >/dev/null && egw tree >before.txt && egw --panel exported.json tree >after.txt && cmp before.txt after.txt && egw --panel exported.json show det-1-001 >after.txt && egw show det-1-001 >before.txt && cmp before.txt after.txt && echo same tree")
egw_run(types "^# Element types\n.*## 0x70169 Panel\n.*Child types: 0x70170 HardwareRoot, .*\\| 0x30004 Address \\| 6 \\(integer, 4 bytes\\) \\| `1` \\|.*exit status 0"
  types)
# The checked-in type reference is the tool's current output (cmake --build <build> --target
# egw_types_page writes it).
egw_script(types_page "^exit status 0"
  "egw types | diff -u ${PROJECT_SOURCE_DIR}/docs/types.md - >types.diff || { cat types.diff; false; }")
egw_run(bad_panel
  "egw: .*badPanel\\.json: /root/properties/Adress: \"Adress\" names no property .*exit status 1"
  --panel badPanel.json tree)
egw_run(generate_and_load "EvacuationZone #[0-9]+  ID 01\\.0004  address 2  \"Evacuation zone 2\"  \\[evac-2\\]"
  generate --loops 2 --devices 5 -o generated.json && ${EGW_RUN_EMULATOR} \"$<TARGET_FILE:egw>\" --panel generated.json show evac-2)

# egw audit and egw history against a real egwd and its database file.
if(TARGET egwd)
  add_test(NAME egw_records
           COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tools/recordsRuns.sh
                   $<TARGET_FILE:egw> $<TARGET_FILE:egwd>)
  string(JOIN " " egw_records_emulator ${CMAKE_CROSSCOMPILING_EMULATOR})
  set_tests_properties(egw_records PROPERTIES LABELS service TIMEOUT 300
                       ENVIRONMENT "EMULATOR=${egw_records_emulator}")
endif()
