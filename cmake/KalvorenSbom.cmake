# The software bill of materials: what the library is made of and what it needs, as SPDX 2.3.
#
# Included by the project, it has the file made in every build. Run as a script (cmake -P) it makes it, from the variables
# SOURCE, OUTPUT, VERSION and FILES (relative to SOURCE).

if(NOT CMAKE_SCRIPT_MODE_FILE)
  set(sbom "${PROJECT_BINARY_DIR}/kalvoren.spdx.json")
  set(sbom_files LICENSE src/exports.map ${KALVOREN_HEADERS} ${KALVOREN_SOURCES} ${KALVOREN_INTERNAL_HEADERS})
  list(TRANSFORM sbom_files PREPEND "${PROJECT_SOURCE_DIR}/" OUTPUT_VARIABLE sbom_depends)
  add_custom_command(
    OUTPUT "${sbom}"
    COMMAND "${CMAKE_COMMAND}" "-DSOURCE=${PROJECT_SOURCE_DIR}" "-DOUTPUT=${sbom}" "-DVERSION=${PROJECT_VERSION}"
            "-DFILES=${sbom_files}" -P "${CMAKE_CURRENT_LIST_FILE}"
    DEPENDS ${sbom_depends} "${CMAKE_CURRENT_LIST_FILE}"
    COMMENT "Making the bill of materials"
    VERBATIM)
  add_custom_target(kalvoren-sbom ALL DEPENDS "${sbom}")
  install(
    FILES "${sbom}"
    DESTINATION ${CMAKE_INSTALL_DOCDIR}
    COMPONENT plain-documents)
  return()
endif()

# One entry for each file; the sum over their sums stands for the package.
set(entries)
set(sums)
set(contained)
foreach(name IN LISTS FILES)
  file(SHA1 "${SOURCE}/${name}" sha1)
  file(SHA256 "${SOURCE}/${name}" sha256)
  list(APPEND sums ${sha1})
  string(REGEX REPLACE "[^A-Za-z0-9.]" "-" id "SPDXRef-File-${name}")
  set(entry
      [[    {
      "SPDXID": "@id@",
      "fileName": "./@name@",
      "checksums": [
        { "algorithm": "SHA1", "checksumValue": "@sha1@" },
        { "algorithm": "SHA256", "checksumValue": "@sha256@" }
      ],
      "licenseConcluded": "MIT",
      "licenseInfoInFiles": ["NOASSERTION"],
      "copyrightText": "Copyright (c) 2026 The Kalvoren Authors"
    }]])
  string(CONFIGURE "${entry}" entry @ONLY)
  list(APPEND entries "${entry}")
  list(APPEND contained
       "    { \"spdxElementId\": \"SPDXRef-Kalvoren\", \"relationshipType\": \"CONTAINS\", \"relatedSpdxElement\": \"${id}\" }")
endforeach()
# As the format has it: the sum of the sorted sums.
list(SORT sums)
list(JOIN sums "" sums)
string(SHA1 verification "${sums}")
list(JOIN entries ",\n" entries)
list(JOIN contained ",\n" contained)
string(TIMESTAMP created "%Y-%m-%dT%H:%M:%SZ" UTC)

# needed(<id> <name> <licence>): a library that the system has to have.
set(needed)
macro(needed id name licence)
  string(
    APPEND
    needed
    ",\n    {
      \"SPDXID\": \"SPDXRef-${id}\",
      \"name\": \"${name}\",
      \"downloadLocation\": \"NOASSERTION\",
      \"filesAnalyzed\": false,
      \"licenseConcluded\": \"${licence}\",
      \"licenseDeclared\": \"${licence}\",
      \"copyrightText\": \"NOASSERTION\"
    }")
  string(
    APPEND
    contained
    ",\n    { \"spdxElementId\": \"SPDXRef-Kalvoren\", \"relationshipType\": \"DYNAMIC_LINK\", "
    "\"relatedSpdxElement\": \"SPDXRef-${id}\" }")
endmacro()
needed(glibc glibc LGPL-2.1-or-later)
needed(libstdcxx "libstdc++" "GPL-3.0-or-later WITH GCC-exception-3.1")
needed(libgcc libgcc "GPL-3.0-or-later WITH GCC-exception-3.1")

set(document
    [[{
  "spdxVersion": "SPDX-2.3",
  "dataLicense": "CC0-1.0",
  "SPDXID": "SPDXRef-DOCUMENT",
  "name": "kalvoren-@VERSION@",
  "documentNamespace": "https://kalvoren.example/spdx/kalvoren-@VERSION@-@verification@",
  "creationInfo": {
    "created": "@created@",
    "creators": ["Organization: The Kalvoren Authors", "Tool: CMake-@CMAKE_VERSION@"]
  },
  "packages": [
    {
      "SPDXID": "SPDXRef-Kalvoren",
      "name": "kalvoren",
      "versionInfo": "@VERSION@",
      "supplier": "Organization: The Kalvoren Authors",
      "downloadLocation": "NOASSERTION",
      "filesAnalyzed": true,
      "packageVerificationCode": { "packageVerificationCodeValue": "@verification@" },
      "licenseConcluded": "MIT",
      "licenseDeclared": "MIT",
      "licenseInfoFromFiles": ["NOASSERTION"],
      "copyrightText": "Copyright (c) 2026 The Kalvoren Authors",
      "primaryPackagePurpose": "LIBRARY"
    }@needed@
  ],
  "files": [
@entries@
  ],
  "relationships": [
    { "spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES", "relatedSpdxElement": "SPDXRef-Kalvoren" },
@contained@
  ]
}
]])
string(CONFIGURE "${document}" document @ONLY)
file(WRITE "${OUTPUT}" "${document}")
