# Installs a build tree into a fresh staging prefix and checks the result: every file the
# install rules promise is there and nothing else, the service file is configured (no
# @VAR@ left, ExecStart names the installed daemon) and the man pages are troff.
#
#   cmake -DBUILD_DIR=<build> -DSTAGE=<empty dir> -DSBINDIR=<full sbindir>
#         -DWITH_TOOL=ON|OFF -P cmake/check-install.cmake
cmake_minimum_required(VERSION 3.16)

foreach(var BUILD_DIR STAGE SBINDIR)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "check-install: ${var} not set")
    endif()
endforeach()

file(REMOVE_RECURSE ${STAGE})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${STAGE}
                RESULT_VARIABLE result OUTPUT_QUIET)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "check-install: cmake --install failed (${result})")
endif()

set(expected
    sbin/TavrineD
    share/man/man8/TavrineD.8
    lib/systemd/system/tavrined.service
    lib/udev/rules.d/70-tavrine.rules
    share/tavrine/linux/61-tavrine-screen.hwdb
    lib/sysusers.d/tavrine.conf
    share/tavrine/android/tavrined.rc
    share/tavrine/android/MorvelTouch_VirtualDevice.idc
    share/tavrine/android/MorvelTouch_VirtualPen.idc
    share/tavrine/android/SELINUX.md
    bin/tavrine-sim
    bin/tavrine-evrec
    share/man/man1/tavrine-sim.1
    share/man/man1/tavrine-evrec.1
    share/tavrine-sim/descriptors/default.hex
    share/tavrine-sim/descriptors/multitouch-2.hex
    share/tavrine-sim/descriptors/multitouch-10.hex)
if(WITH_TOOL)
    list(APPEND expected bin/tavrinectl)
endif()
if(WITH_TOOL_MAN)
    list(APPEND expected share/man/man1/tavrinectl.1)
endif()

file(GLOB_RECURSE installed RELATIVE ${STAGE} ${STAGE}/*)
list(SORT installed)
set(failures "")
foreach(path IN LISTS expected)
    if(NOT path IN_LIST installed)
        string(APPEND failures "  missing: ${path}\n")
    endif()
endforeach()
foreach(path IN LISTS installed)
    message("installed: ${path}")
    if(NOT path IN_LIST expected)
        string(APPEND failures "  unexpected: ${path}\n")
    endif()
endforeach()

foreach(program sbin/TavrineD bin/tavrine-sim bin/tavrine-evrec)
    if(EXISTS ${STAGE}/${program} AND NOT IS_DIRECTORY ${STAGE}/${program})
        file(READ ${STAGE}/${program} magic LIMIT 4 HEX)
        if(NOT magic STREQUAL "7f454c46")
            string(APPEND failures "  ${program} is not an ELF program\n")
        endif()
    endif()
endforeach()

set(service ${STAGE}/lib/systemd/system/tavrined.service)
if(EXISTS ${service})
    file(READ ${service} text)
    if(text MATCHES "@[A-Za-z_]+@")
        string(APPEND failures "  tavrined.service keeps an unconfigured ${CMAKE_MATCH_0}\n")
    endif()
    if(NOT text MATCHES "\nExecStart=${SBINDIR}/TavrineD -f\n")
        string(APPEND failures "  tavrined.service does not start ${SBINDIR}/TavrineD -f\n")
    endif()
endif()

foreach(page man8/TavrineD.8 man1/tavrinectl.1 man1/tavrine-sim.1)
    set(file ${STAGE}/share/man/${page})
    if(EXISTS ${file})
        get_filename_component(name ${page} NAME_WE)
        string(TOUPPER ${name} upper)
        file(STRINGS ${file} heading REGEX "^\\.TH ")
        if(NOT heading MATCHES "^\\.TH \"?${upper}\"? \"?[18]\"?")
            string(APPEND failures "  ${page} has no troff heading .TH ${upper} (got '${heading}')\n")
        endif()
    endif()
endforeach()

set(evrec_page ${STAGE}/share/man/man1/tavrine-evrec.1)
if(EXISTS ${evrec_page})
    file(READ ${evrec_page} text)
    if(NOT text STREQUAL ".so man1/tavrine-sim.1\n")
        string(APPEND failures "  man1/tavrine-evrec.1 does not point to man1/tavrine-sim.1\n")
    endif()
endif()

if(failures)
    message(FATAL_ERROR "check-install: ${STAGE}\n${failures}")
endif()
list(LENGTH installed count)
message("check-install: ${count} files installed as expected under ${STAGE}")
