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

# Help text with every line longer than `width` broken at blanks: an option's
# description goes on under itself, other text under its own indentation.
function(kzol_wrap out_var text width)
  # The footer (after the last blank line) is running text: a line that ends
  # within a sentence goes on on the next.
  string(REGEX REPLACE "\n+$" "\n" text "${text}")
  string(FIND "${text}" "\n\n" footer_at REVERSE)
  if(footer_at GREATER -1)
    string(SUBSTRING "${text}" 0 ${footer_at} head)
    string(SUBSTRING "${text}" ${footer_at} -1 footer)
    string(REGEX REPLACE "([^.:\n])\n([^ \n])" "\\1 \\2" footer "${footer}")
    set(text "${head}${footer}")
  endif()
  # Characters that CMake's lists would read: kept out of the way meanwhile.
  string(REPLACE ";" "@KZOLSEMI@" text "${text}")
  string(REPLACE "[" "@KZOLOPEN@" text "${text}")
  string(REPLACE "]" "@KZOLCLOSE@" text "${text}")
  string(REPLACE "\n" ";" lines "${text}")
  set(wrapped "")
  foreach(line IN LISTS lines)
    string(LENGTH "${line}" length)
    if(length GREATER width)
      # The column where a description starts after an option's name, or
      # the line's own indentation.
      if(line MATCHES "^( +[^ ].*[^ ]  +)[^ ]" AND CMAKE_MATCH_1)
        string(LENGTH "${CMAKE_MATCH_1}" hang)
      elseif(line MATCHES "^( *)")
        string(LENGTH "${CMAKE_MATCH_1}" hang)
      endif()
      if(hang GREATER 40)
        set(hang 8)
      endif()
      string(REPEAT " " ${hang} indent)
      set(rest "${line}")
      string(LENGTH "${rest}" length)
      while(length GREATER width)
        math(EXPR cut_at "${width} + 1")
        string(SUBSTRING "${rest}" 0 ${cut_at} head)
        string(FIND "${head}" " " blank REVERSE)
        if(blank LESS_EQUAL hang)
          break()  # one word longer than the line: left whole
        endif()
        string(SUBSTRING "${rest}" 0 ${blank} piece)
        string(APPEND wrapped "${piece}\n")
        math(EXPR after "${blank} + 1")
        string(SUBSTRING "${rest}" ${after} -1 rest)
        string(REGEX REPLACE "^ +" "" rest "${rest}")
        set(rest "${indent}${rest}")
        string(LENGTH "${rest}" length)
      endwhile()
      string(APPEND wrapped "${rest}\n")
    else()
      string(APPEND wrapped "${line}\n")
    endif()
  endforeach()
  string(REGEX REPLACE "\n$" "" wrapped "${wrapped}")
  string(REPLACE "@KZOLSEMI@" ";" wrapped "${wrapped}")
  string(REPLACE "@KZOLOPEN@" "[" wrapped "${wrapped}")
  string(REPLACE "@KZOLCLOSE@" "]" wrapped "${wrapped}")
  set(${out_var} "${wrapped}" PARENT_SCOPE)
endfunction()

# Help text as literal roff lines, wrapped to 72 columns (the page indents them): backslashes
# escaped, no line read as a request.
function(kzol_roff out_var text)
  kzol_wrap(text "${text}" 72)
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
string(APPEND page ".SH ENVIRONMENT
.TP
.B NO_COLOR
When set and not empty, no colour codes in the library's log lines
(\\fB\\-v\\fR) or in the host log stand-in's lines; without it, colour only
on a terminal.
.TP
.B KZOL_PKCS11_PIN
The token's PIN for \\fBsign\\fR and \\fBcert\\fR with a pkcs11: key that names none
(after \\fB\\-\\-pin\\-file\\fR and the URI's pin-value).
.TP
.B KZOL_EMULATE_LIB
The device emulation library that \\fBkzol emulate\\fR preloads, in place of
libkzol_emulate.so in the library directory beside kzol.
.TP
.B KZOL_PROFILE
Set by \\fBkzol emulate\\fR for the command it runs: the profile's absolute path.
.TP
.B KZOL_EMULATE_TRACE
A file to which the emulation appends one line for every access it answers.
.TP
.B KZOL_VCONF_STORE
The directory of the host configuration store's values, for the host stand-in.
.TP
.B KZOL_USB_MOUNTINFO
A file in the format of /proc/self/mountinfo that the host USB stand-in reads
instead of the system's.
.TP
.B KZOL_USB_SYSFS
A directory that the host USB stand-in reads in place of /sys.
.SH EXAMPLES
Sign a release tree's scripts, listed one a line, with key 5:
.PP
.RS
.nf
find stage/opt -name '*.sh' > list.txt
kzol sign \\-\\-key private_key_5.pem \\-\\-key\\-id 5 \\-\\-from list.txt
.fi
.RE
.PP
Verify them with the deployment's public keys, any number of files,
NUL-separated, as JSON lines:
.PP
.RS
.nf
find stage/opt \\-type f \\-print0 |
    kzol verify \\-\\-keys keys/ \\-\\-from \\- \\-0 \\-\\-json > verdicts.jsonl
.fi
.RE
.PP
Audit a staging root file system as the device will see it:
.PP
.RS
.nf
kzol audit \\-\\-root stage \\-\\-keys keys/ \\-j 2
.fi
.RE
.PP
Run a check on an emulated television:
.PP
.RS
.nf
kzol profile init \\-\\-tv tv
kzol emulate tv \\-\\- kzol check /opt/app/run.sh
.fi
.RE
.SH EXIT STATUS
0 success or a positive answer; 1 a negative answer; 2 a usage or I/O error.
\\fBkzol exec\\fR exits with the program's own status, 126 when the file is
refused, 127 when it does not exist. \\fBkzol enforce\\fR runs until SIGTERM or
SIGINT and then exits 0; 2 without the privilege or when a path cannot be marked.
.SH SEE ALSO
The README of libkZOLUser, and the contract in the header kZOLUser/kZOLUser.h.
")
file(WRITE ${OUT} "${page}")
