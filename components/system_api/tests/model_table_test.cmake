# Generates the model table from valid and invalid files.
#   cmake -DMODULE=<module> -DTEMPLATE=<template> -DDEFAULT_CSV=<file> -DROOM=<folder> -P <this file>
cmake_minimum_required(VERSION 3.25)
if(CSV)
    include(${MODULE})
    hox_model_table(${CSV} ${TEMPLATE} ${ROOM}/table.cpp)
    return()
endif()

set(failures 0)
set(heading "name,part_number,module_slots,rack_units\n")

macro(run csv)
    file(REMOVE ${ROOM}/table.cpp)
    execute_process(
        COMMAND ${CMAKE_COMMAND} -DCSV=${csv} -DMODULE=${MODULE} -DTEMPLATE=${TEMPLATE} -DROOM=${ROOM}
            -P ${CMAKE_CURRENT_LIST_FILE}
        RESULT_VARIABLE result
        ERROR_VARIABLE error)
    string(REGEX REPLACE "[ \n]+" " " error "${error}")
endmacro()

function(expect_failure content text)
    file(WRITE ${ROOM}/models.csv "${content}")
    run(${ROOM}/models.csv)
    string(FIND "${error}" "${text}" found)
    if(result EQUAL 0 OR found EQUAL -1 OR EXISTS ${ROOM}/table.cpp)
        message("\"${content}\": expected \"${text}\", got ${result}: ${error}")
        math(EXPR failures "${failures} + 1")
        set(failures ${failures} PARENT_SCOPE)
    endif()
endfunction()

function(expect_rows csv rows)
    run(${csv})
    set(made "")
    if(EXISTS ${ROOM}/table.cpp)
        file(READ ${ROOM}/table.cpp made)
    endif()
    string(FIND "${made}" "{\n${rows}    }" found)
    if(NOT result EQUAL 0 OR found EQUAL -1)
        message("${csv}: expected \"${rows}\", got ${result}: ${error}${made}")
        math(EXPR failures "${failures} + 1")
        set(failures ${failures} PARENT_SCOPE)
    endif()
endfunction()

expect_failure("" "has no model")
expect_failure("${heading}" "has no model")
expect_failure("name,part_number\nA,1,1,1\n" "models.csv:1: the heading is not name,part_number,")
expect_failure("A,1,1,1\n" "models.csv:1: the heading is not name,part_number,")
foreach(row IN ITEMS "A" "A,1,1" "A,1,1,1,1" ",1,1,1" "A,,1,1" "A,x,1,1" "A,-1,1,1" "A,1,1.5,1"
        "A, 1,1,1" "A,1,1,1 " "\"A\",1,1,1" "A\\,1,1,1" "[A,1,1,1" "A],1,1,1" "A\\n,1,1,1")
    expect_failure("${heading}Good,7,1,1\n${row}\n" "models.csv:3: \"${row}\" is not name,part_number,")
endforeach()
expect_failure("${heading}A;B,1,1,1\n" "models.csv:2: \"A;B,1,1,1\" is not")
expect_failure("${heading}A,1,1,1\n\nB,2,1,1\n" "models.csv:3: \"\" is not")
expect_failure("${heading} A,1,1,1\n" "models.csv:2: the name \" A\" has a blank at an end")
expect_failure("${heading}A ,1,1,1\n" "models.csv:2: the name \"A \" has a blank at an end")
expect_failure("${heading}A\tB,1,1,1\n" "has a blank at an end or a tab")
expect_failure("${heading}A,1,1,1\nB,0001,1,1\n" "models.csv:3: part number 1 has a row already")
expect_failure("${heading}A,2147483648,1,1\n" "models.csv:2: 2147483648 is above 2147483647")
expect_failure("${heading}A,1,1,99999999999999999999\n" "models.csv:2: 99999999999999999999 is above")

foreach(missing IN ITEMS ${ROOM}/missing.csv ${ROOM})
    run(${missing})
    if(result EQUAL 0 OR NOT error MATCHES "HALVO_MODEL_TABLE: there is no file")
        message("${missing}: ${result}: ${error}")
        math(EXPR failures "${failures} + 1")
    endif()
endforeach()

file(WRITE ${ROOM}/models.csv "${heading}A 'b' @c@ (d),2147483647,0,010\r\nÖ,00,1,2")
expect_rows(${ROOM}/models.csv
    "    {\"A 'b' @c@ (d)\", 2147483647, 0, 10},\n    {\"Ö\", 0, 1, 2},\n")

file(STRINGS ${DEFAULT_CSV} default_rows REGEX ",1000[01][0-9],")
list(LENGTH default_rows count)
set(expected "")
foreach(row IN LISTS default_rows)
    string(REGEX REPLACE "^([^,]*),([0-9]+),([0-9]+),([0-9]+)$" "    {\"\\1\", \\2, \\3, \\4},\n"
        row "${row}")
    string(APPEND expected "${row}")
endforeach()
expect_rows(${DEFAULT_CSV} "${expected}")
if(NOT count EQUAL 13 OR NOT expected MATCHES " 100001, .* 100013, ")
    message("${DEFAULT_CSV}: ${count} models")
    math(EXPR failures "${failures} + 1")
endif()

if(failures)
    message(FATAL_ERROR "${failures} failures")
endif()
