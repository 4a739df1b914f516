# CTest step: passes iff the GoogleTest case CASE ("Suite.Name") ran and
# passed in the XML results XML of the VM run.
#
# cmake -D CASE=<Suite.Name> -D XML=<results> -P case_result.cmake
cmake_minimum_required(VERSION 3.25)
if(NOT EXISTS "${XML}")
    message(FATAL_ERROR "${XML} is missing: the VM run did not finish; "
                        "see the console log next to it")
endif()
file(READ "${XML}" xml)

string(FIND "${CASE}" "." dot)
string(SUBSTRING "${CASE}" 0 ${dot} suite_name)
math(EXPR name_start "${dot} + 1")
string(SUBSTRING "${CASE}" ${name_start} -1 case_name)

string(REGEX MATCH "<testcase name=\"${case_name}\"[^>]* classname=\"${suite_name}\"[^>]*>"
       start_tag "${xml}")
if(start_tag STREQUAL "")
    message(FATAL_ERROR "${CASE} is not in ${XML}: the suite stopped before it")
endif()
if(NOT start_tag MATCHES "status=\"run\" result=\"completed\"")
    message(FATAL_ERROR "${CASE} did not run to completion: ${start_tag}")
endif()
if(start_tag MATCHES "/>$")
    return()
endif()

# The case's body: each failure is a <failure> element whose CDATA holds
# GoogleTest's report of it.
string(FIND "${xml}" "${start_tag}" tag_at)
string(LENGTH "${start_tag}" tag_length)
math(EXPR body_at "${tag_at} + ${tag_length}")
string(SUBSTRING "${xml}" ${body_at} -1 rest)
string(FIND "${rest}" "</testcase>" body_end)
string(SUBSTRING "${rest}" 0 ${body_end} body)
if(NOT body MATCHES "<failure")
    return()
endif()
set(reports "")
string(FIND "${body}" "<![CDATA[" cdata_at)
while(NOT cdata_at EQUAL -1)
    math(EXPR text_at "${cdata_at} + 9")
    string(SUBSTRING "${body}" ${text_at} -1 body)
    string(FIND "${body}" "]]>" text_end)
    string(SUBSTRING "${body}" 0 ${text_end} text)
    string(APPEND reports "\n${text}\n")
    string(FIND "${body}" "<![CDATA[" cdata_at)
endwhile()
# Printed as it stands: FATAL_ERROR would rewrap GoogleTest's lines.
message(NOTICE "${reports}")
message(FATAL_ERROR "${CASE} failed")
