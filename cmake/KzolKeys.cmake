# The two public keys the library verifies with are compiled in. Each must be
# the PEM form of an RSA-2048 SubjectPublicKeyInfo in exactly 445 characters:
# the BEGIN line, one line of 392 base64 characters, the END line, each ended
# by a single line feed. A key in any other form fails the configuration.

set(KZOL_DEV_KEY_DIR "${PROJECT_SOURCE_DIR}/keys/dev")
set(KZOL_PUBLIC_KEY_5 "${KZOL_DEV_KEY_DIR}/public_key_5.pem" CACHE FILEPATH "PEM public key for key selector 5")
set(KZOL_PUBLIC_KEY_6 "${KZOL_DEV_KEY_DIR}/public_key_6.pem" CACHE FILEPATH "PEM public key for key selector 6")

# DER header of an RSA SubjectPublicKeyInfo with a 2048-bit modulus: SEQUENCE,
# AlgorithmIdentifier rsaEncryption with NULL parameters, BIT STRING, RSAPublicKey
# SEQUENCE, INTEGER of 257 bytes (a zero byte, then a modulus with its top bit set).
set(_kzol_rsa2048_der_head "MIIBIjANBgkqhkiG9w0BAQEFAAOCAQ8AMIIBCgKCAQEA")

function(kzol_check_public_key selector path out_text)
  if(NOT EXISTS "${path}")
    message(FATAL_ERROR "KZOL_PUBLIC_KEY_${selector}: no such file: ${path}")
  endif()
  file(READ "${path}" text)
  string(LENGTH "${text}" len)
  if(NOT len EQUAL 445)
    message(FATAL_ERROR "KZOL_PUBLIC_KEY_${selector} (${path}): ${len} characters; "
      "a public key must be exactly 445: the BEGIN PUBLIC KEY line, one line of 392 "
      "base64 characters and the END PUBLIC KEY line, each ended by a line feed. "
      "'kzol keygen' writes keys in this form, and 'kzol pubkey KEY' converts any PEM key "
      "(such as the output of 'openssl pkey -pubout') or a pkcs11: key to it.")
  endif()
  if(NOT text MATCHES "^-----BEGIN PUBLIC KEY-----\n([A-Za-z0-9+/]+)\n-----END PUBLIC KEY-----\n$")
    message(FATAL_ERROR "KZOL_PUBLIC_KEY_${selector} (${path}): not a PEM public key with a "
      "single base64 line between 'BEGIN PUBLIC KEY' and 'END PUBLIC KEY' lines.")
  endif()
  set(body "${CMAKE_MATCH_1}")
  string(LENGTH "${body}" body_len)
  string(SUBSTRING "${body}" 0 44 head)
  if(NOT body_len EQUAL 392 OR NOT head STREQUAL "${_kzol_rsa2048_der_head}")
    message(FATAL_ERROR "KZOL_PUBLIC_KEY_${selector} (${path}): not an RSA-2048 public key "
      "(SubjectPublicKeyInfo with a 2048-bit modulus and a 3-byte exponent).")
  endif()
  # The structure check above is exact; let OpenSSL parse the key as well when
  # its command is at hand.
  find_program(KZOL_OPENSSL_EXECUTABLE openssl)
  if(KZOL_OPENSSL_EXECUTABLE)
    execute_process(COMMAND "${KZOL_OPENSSL_EXECUTABLE}" pkey -pubin -in "${path}" -noout -text
      OUTPUT_VARIABLE parsed ERROR_VARIABLE parse_err RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0 OR NOT parsed MATCHES "Public-Key: \\(2048 bit\\)")
      message(FATAL_ERROR "KZOL_PUBLIC_KEY_${selector} (${path}): OpenSSL does not read it as "
        "an RSA-2048 public key: ${parse_err}")
    endif()
  endif()
  set(${out_text} "${text}" PARENT_SCOPE)
endfunction()

kzol_check_public_key(5 "${KZOL_PUBLIC_KEY_5}" _kzol_key5)
kzol_check_public_key(6 "${KZOL_PUBLIC_KEY_6}" _kzol_key6)

# A development key is recognised by its content wherever it lies: a copy
# outside keys/dev/ is still one. One development key beside a deployment's
# own (only one of the two options given) fails: the build would accept
# files signed with a private key that anyone has.
file(READ "${KZOL_DEV_KEY_DIR}/public_key_5.pem" _kzol_dev5)
file(READ "${KZOL_DEV_KEY_DIR}/public_key_6.pem" _kzol_dev6)
set(_kzol_dev_count 0)
foreach(selector IN ITEMS 5 6)
  if(_kzol_key${selector} STREQUAL _kzol_dev5 OR _kzol_key${selector} STREQUAL _kzol_dev6)
    math(EXPR _kzol_dev_count "${_kzol_dev_count} + 1")
    set(_kzol_dev_name "${selector}")
  else()
    set(_kzol_own_name "${selector}")
  endif()
endforeach()
if(_kzol_dev_count EQUAL 1)
  message(FATAL_ERROR "KZOL_PUBLIC_KEY_${_kzol_own_name} is a deployment's own key, but "
    "KZOL_PUBLIC_KEY_${_kzol_dev_name} (${KZOL_PUBLIC_KEY_${_kzol_dev_name}}) is a development key "
    "from keys/dev/, whose private half is public: give both keys "
    "(-DKZOL_PUBLIC_KEY_5=... -DKZOL_PUBLIC_KEY_6=...); 'kzol pubkey' writes one from a private key.")
endif()
set(KZOL_USES_DEV_KEYS OFF)
if(_kzol_dev_count EQUAL 2)
  set(KZOL_USES_DEV_KEYS ON)
endif()
if(KZOL_USES_DEV_KEYS)
  message(WARNING
    "\n"
    "  ******************************************************************\n"
    "  **  THIS BUILD USES THE DEVELOPMENT KEYS FROM keys/dev/.          **\n"
    "  **  Their private halves are public: anyone can sign for it.     **\n"
    "  **  Never ship it. Deployments pass their own keys with          **\n"
    "  **  -DKZOL_PUBLIC_KEY_5=... -DKZOL_PUBLIC_KEY_6=...               **\n"
    "  ******************************************************************\n")
endif()

# The keys as C string literals, one line each.
function(kzol_c_literal text out)
  string(REPLACE "\n" "\\n" lit "${text}")
  set(${out} "\"${lit}\"" PARENT_SCOPE)
endfunction()
kzol_c_literal("${_kzol_key5}" KZOL_PUBLIC_KEY_5_LITERAL)
kzol_c_literal("${_kzol_key6}" KZOL_PUBLIC_KEY_6_LITERAL)
set(KZOL_GENERATED_DIR "${PROJECT_BINARY_DIR}/generated")
configure_file("${PROJECT_SOURCE_DIR}/cmake/public_keys.h.in" "${KZOL_GENERATED_DIR}/public_keys.h" @ONLY)
