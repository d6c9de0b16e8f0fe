# Writes the kzol(1) manual page from the command's own help texts, so the
# options are described in one place: the command's definitions.
#   cmake -DKZOL=path/to/kzol [-DEMULATOR=...] -DOUT=kzol.1 -P KzolManPage.cmake
function(kzol_help out_var)
  execute_process(COMMAND ${EMULATOR} ${KZOL} ${ARGN} --help
    OUTPUT_VARIABLE text RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "kzol ${ARGN} --help failed (${rc})")
  endif()
  set(${out_var} "${text}" PARENT_SCOPE)
endfunction()

# Help text as literal roff lines: backslashes escaped, no line read as a request.
function(kzol_roff out_var text)
  string(REPLACE "\\" "\\e" text "${text}")
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
  set(${out_var} "${text}" PARENT_SCOPE)
endfunction()

execute_process(COMMAND ${EMULATOR} ${KZOL} --version OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE)
kzol_help(main_help)
kzol_roff(main_roff "${main_help}")

# The subcommands, as the main help lists them.
string(REGEX REPLACE ".*\nSubcommands:\n" "" listing "${main_help}")
string(REPLACE "\n" ";" listing "${listing}")
set(commands "")
foreach(line IN LISTS listing)
  if(line MATCHES "^  ([a-z][a-z-]*)( |$)")
    list(APPEND commands "${CMAKE_MATCH_1}")
  endif()
endforeach()
if(NOT commands)
  message(FATAL_ERROR "no subcommands found in kzol --help")
endif()

set(page ".TH KZOL 1 \"\" \"${version}\" \"User Commands\"
.SH NAME
kzol \\- keys, signing, disable certificates, inspection and checks for libkZOLUser
.SH SYNOPSIS
.B kzol
.I COMMAND
[\\fIOPTIONS\\fR]
.br
.B kzol \\-\\-version
.SH DESCRIPTION
.nf
${main_roff}.fi
.SH COMMANDS
")
foreach(command IN LISTS commands)
  kzol_help(help ${command})
  kzol_roff(roff "${help}")
  string(APPEND page ".SS kzol ${command}\n.nf\n${roff}.fi\n")
endforeach()
string(APPEND page ".SH EXIT STATUS
0 success or a positive answer; 1 a negative answer; 2 a usage or I/O error.
\\fBkzol exec\\fR exits with the program's own status, 126 when the file is
refused, 127 when it does not exist. \\fBkzol enforce\\fR runs until SIGTERM or
SIGINT and then exits 0; 2 without the privilege or when a path cannot be marked.
.SH SEE ALSO
The README of libkZOLUser, and the contract in the header kZOLUser/kZOLUser.h.
")
file(WRITE ${OUT} "${page}")
