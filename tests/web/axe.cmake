# Fetches axe-core, which looks for what shuts people out of a page, into OUTPUT. Only the tests use
# it; it is under MPL-2.0 and goes into no package.
set(version 4.14.1)
set(sha512 1477dafa598d8d065f273d6af302aa203c02e83131707b7fa648cd41bd3d6b734f8c22a0dab86ee6a6f64b8afbe804b214d36db85a2826965edfb3a0b9d546b5)
if(NOT EXISTS ${OUTPUT})
  get_filename_component(folder ${OUTPUT} DIRECTORY)
  file(DOWNLOAD https://registry.npmjs.org/axe-core/-/axe-core-${version}.tgz ${folder}/axe-core.tgz
    EXPECTED_HASH SHA512=${sha512} TIMEOUT 60)
  file(ARCHIVE_EXTRACT INPUT ${folder}/axe-core.tgz DESTINATION ${folder}
    PATTERNS package/axe.min.js)
  file(RENAME ${folder}/package/axe.min.js ${OUTPUT})
endif()
