# Checks the dynamic symbol tables of the shared libraries.
#
#   -DNM=<nm> -DHEADER=<MV_Logging.h> -DLOGGING_LIBRARY=<libmarivane-logging.so.4>
#   -DCOMPANION_LIBRARIES=<core>|<database> -P check_exports.cmake
#
# 1. Every MV_Log<Type>_<Operation> function declared in the C header is a
#    defined text symbol ('T') of the logging library.
# 2. No library exports a symbol of the C layer's helpers, of the private
#    implementation classes, or of the SQLite and compression code it uses.

foreach(variable NM HEADER LOGGING_LIBRARY COMPANION_LIBRARIES)
    if(NOT DEFINED ${variable} OR "${${variable}}" STREQUAL "")
        message(FATAL_ERROR "check_exports.cmake needs -D${variable}=...")
    endif()
endforeach()

# Reads the defined dynamic symbols of `library` into two lists: the names and
# their types, index by index.
function(read_symbols library names_out types_out)
    execute_process(
        COMMAND ${NM} -D --defined-only ${library}
        OUTPUT_VARIABLE output
        ERROR_VARIABLE errors
        RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${NM} failed on ${library}: ${errors}")
    endif()
    string(REPLACE ";" "\\;" output "${output}")
    string(REPLACE "\n" ";" lines "${output}")
    set(names)
    set(types)
    foreach(line IN LISTS lines)
        if(line MATCHES "^[0-9a-fA-F]* *([A-Za-z]) (.+)$")
            list(APPEND types "${CMAKE_MATCH_1}")
            list(APPEND names "${CMAKE_MATCH_2}")
        endif()
    endforeach()
    list(LENGTH names count)
    if(count EQUAL 0)
        message(FATAL_ERROR "no defined dynamic symbols in ${library}")
    endif()
    set(${names_out} "${names}" PARENT_SCOPE)
    set(${types_out} "${types}" PARENT_SCOPE)
endfunction()

set(failures 0)

# ---- 1. the C functions ------------------------------------------------------
file(READ ${HEADER} header)
string(REGEX MATCHALL "MV_Log[A-Za-z]+_[A-Za-z0-9]+\\(" declared "${header}")
string(REGEX MATCHALL "MV_LOGGING_EXPORT" export_marks "${header}")
list(TRANSFORM declared REPLACE "\\($" "")
list(REMOVE_DUPLICATES declared)
list(LENGTH declared declared_count)
list(LENGTH export_marks export_count)
if(NOT declared_count EQUAL export_count)
    message(SEND_ERROR "found ${declared_count} function names but ${export_count} exported declarations in ${HEADER}")
    math(EXPR failures "${failures} + 1")
endif()

read_symbols(${LOGGING_LIBRARY} logging_names logging_types)
foreach(function IN LISTS declared)
    list(FIND logging_names ${function} index)
    if(index EQUAL -1)
        message(SEND_ERROR "${function} is not exported by ${LOGGING_LIBRARY}")
        math(EXPR failures "${failures} + 1")
    else()
        list(GET logging_types ${index} type)
        if(NOT type STREQUAL "T")
            message(SEND_ERROR "${function} is exported with type '${type}', expected 'T'")
            math(EXPR failures "${failures} + 1")
        endif()
    endif()
endforeach()
message(STATUS "${declared_count} C functions checked in ${LOGGING_LIBRARY}")

# ---- 2. nothing internal -----------------------------------------------------
set(forbidden CApi SqliteLogFilePrivate LogFilePlayerPrivate zstd ZSTD_ sqlite3_)
string(REPLACE "|" ";" companions "${COMPANION_LIBRARIES}")
foreach(library IN LISTS LOGGING_LIBRARY companions)
    read_symbols(${library} names types)
    list(LENGTH names count)
    foreach(name IN LISTS names)
        foreach(fragment IN LISTS forbidden)
            string(FIND "${name}" "${fragment}" position)
            if(NOT position EQUAL -1)
                message(SEND_ERROR "${library} exports ${name} (contains \"${fragment}\")")
                math(EXPR failures "${failures} + 1")
            endif()
        endforeach()
    endforeach()
    message(STATUS "${count} exported symbols checked in ${library}")
endforeach()

if(failures GREATER 0)
    message(FATAL_ERROR "${failures} export problem(s)")
endif()
