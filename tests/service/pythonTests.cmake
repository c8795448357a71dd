# The panel service as a remote client written elsewhere meets it: Debian's python3-thrift with the
# generated egw_rpc module, against egwd started as a process of its own for every test. Debian's
# Python modules belong to /usr/bin/python3, whatever python3 comes first on the PATH.
set(EGW_SERVICE_PYTHON /usr/bin/python3)
# A cross build runs egwd through its emulator.
set(egw_python_emulator)
foreach(part IN LISTS CMAKE_CROSSCOMPILING_EMULATOR)
  list(APPEND egw_python_emulator "--emulator=${part}")
endforeach()

foreach(name IN ITEMS accessWalk remoteSession clientExample crash)
  add_test(NAME service_python_${name}
           COMMAND ${EGW_SERVICE_PYTHON} ${CMAKE_CURRENT_SOURCE_DIR}/service/python/${name}Test.py
                   --egwd $<TARGET_FILE:egwd> ${egw_python_emulator}
                   --example ${PROJECT_SOURCE_DIR}/service/python/egwClientExample.py)
  set_tests_properties(service_python_${name} PROPERTIES
    ENVIRONMENT "PYTHONPATH=${CMAKE_BINARY_DIR}/service/gen-py;PYTHONDONTWRITEBYTECODE=1"
    LABELS service
    TIMEOUT 300)
endforeach()
# Transport: TLS with certificates made by the openssl command, and peers that abuse the port;
# the records as the panel tool shows them.
foreach(name IN ITEMS tls abuse records)
  add_test(NAME service_python_${name}
           COMMAND ${EGW_SERVICE_PYTHON} ${CMAKE_CURRENT_SOURCE_DIR}/service/python/${name}Test.py
                   --egwd $<TARGET_FILE:egwd> ${egw_python_emulator} --egw $<TARGET_FILE:egw>
                   --example ${PROJECT_SOURCE_DIR}/service/python/egwClientExample.py)
  set_tests_properties(service_python_${name} PROPERTIES
    ENVIRONMENT "PYTHONPATH=${CMAKE_BINARY_DIR}/service/gen-py;PYTHONDONTWRITEBYTECODE=1"
    LABELS service
    TIMEOUT 300)
endforeach()
