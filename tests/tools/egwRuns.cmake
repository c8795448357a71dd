# The panel tool run end to end on the sample panel: each run's output (standard output and error,
# then its exit status) must match the expression.
set(EGW_RUN_DIR ${CMAKE_CURRENT_BINARY_DIR}/egwRuns)
file(MAKE_DIRECTORY ${EGW_RUN_DIR})
file(WRITE ${EGW_RUN_DIR}/badPanel.json
     "{\"version\": 1, \"root\": {\"type\": \"Panel\", \"properties\": {\"Adress\": 1}}}\n")

# A cross build runs the tool through its emulator.
string(JOIN " " EGW_RUN_EMULATOR ${CMAKE_CROSSCOMPILING_EMULATOR})

function(egw_run name expression)
  string(REPLACE ";" " " arguments "${ARGN}")
  add_test(NAME egw_${name}
           COMMAND sh -c "${EGW_RUN_EMULATOR} \"$<TARGET_FILE:egw>\" ${arguments} 2>&1; echo \"exit status $?\""
           WORKING_DIRECTORY ${EGW_RUN_DIR})
  set_tests_properties(egw_${name} PROPERTIES PASS_REGULAR_EXPRESSION "${expression}")
endfunction()

egw_run(demo
  "FIRE ALARM  OpticalSmokeDetector \"Reception, ceiling\"\n    ID string 01\\.001; FireAlarmState: Normal -> FireAlarm\n    category 7 \\(detector\\)\n    element #[0-9]+  address 1  ID 01\\.001  OpticalSmokeDetector  \"Reception, ceiling\"\n    parent  #[0-9]+  address 1  ID 01\\.0001  EvacuationArea  \"Building\"\n    proxy   #[0-9]+  address 1  ID 01\\.0001  EvacuationZone  \"Evacuation zone 1\"\n    device  0x00100001\nexit status 0"
  demo)
egw_run(tree
  "RepeaterPanel #[0-9]+  ID 01\\.002\\.00A1B2C3  address 1.*UnitDisplay #[0-9]+  ID 01\\.002\\.00A1B2C3\\.03.*MainsInput #[0-9]+  ID 01\\.003\\.01.*RoutingArea #[0-9]+  ID 01\\.0012.*ControlGroup #[0-9]+  ID 01  address 1.*exit status 0"
  tree)
egw_run(show_base_sounder
  "DetectorBaseSounder #[0-9]+  ID 01\\.001  address 131.*category 12 \\(detector base sounder\\)\n  element #[0-9]+  address 1  .*proxy   #[0-9]+  address 1  ID 01\\.0001  EvacuationZone.*device  0x00100001\nexit status 0"
  show base-sounder-1-001)
egw_run(show_relations
  "0x20001 to InputZone #[0-9]+  ID 01\\.0001  address 1  \"Zone 1\"  \\[zone-ground\\]\n  0x20002 to EvacuationZone .*\\[evac-ground\\]"
  show det-1-001)
egw_run(json_get "\"property\": \"0x30005 DeviceId\",\n  \"value\": 10597059\n}\nexit status 0"
  --json get repeater-1 DeviceId)
egw_run(set_then_read "property: 0x30031 AlarmThreshold\nvalue: 60\nexit status 0"
  set det-1-001 AlarmThreshold 60)
egw_run(set_out_of_range
  "egw: property 0x30031 holds 1 bytes: expected 0 to 255\nexit status 1"
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
egw_run(json_error "\"error\": \"no element has the uuid or key \\\\\"nowhere\\\\\"\"" --json show nowhere)
egw_run(missing_argument "element is required.*exit status 1[0-9]+" show)
egw_run(bad_panel
  "egw: .*badPanel\\.json: /root/properties/Adress: \"Adress\" names no property .*exit status 1"
  --panel ${EGW_RUN_DIR}/badPanel.json tree)
egw_run(generate_and_load "EvacuationZone #[0-9]+  ID 01\\.0001  address 2  \\[evac-2\\]"
  generate --loops 2 --devices 5 -o generated.json && ${EGW_RUN_EMULATOR} \"$<TARGET_FILE:egw>\" --panel generated.json show evac-2)
