# Windows only: the Windows Installer package. Read back with msiinfo on the build machine, and
# installed, upgraded and removed by Wine's msiexec in a prefix of its own (tests/wine/msi_install.sh).
if(WIN32 AND TARGET tdacli_msi)
  add_test(NAME Msi.Tables
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/msi/msi_tables.sh
      --msi ${TDACLI_MSI} --version ${tdacli_msi_VERSION} --code ${tdacli_msi_PRODUCT_CODE})
  set_tests_properties(Msi.Tables PROPERTIES TIMEOUT 120 PASS_REGULAR_EXPRESSION "PASS: msi tables")

  # The same package one build revision higher, for the upgrade.
  math(EXPR TDACLI_NEXT_REVISION "${TDACLI_REVISION} + 1")
  tdacli_msi(TARGET tdacli_msi_next OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/msi-next/tdacli-next.msi
             EXE $<TARGET_FILE:tdacli> EXE_TARGET tdacli REVISION ${TDACLI_NEXT_REVISION})

  add_test(NAME WineMsi.InstallUpgradeRemove
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/wine/msi_install.sh
      --msi ${TDACLI_MSI} --code "{${tdacli_msi_PRODUCT_CODE}}"
      --msi-next ${CMAKE_CURRENT_BINARY_DIR}/msi-next/tdacli-next.msi --code-next "{${tdacli_msi_next_PRODUCT_CODE}}"
      --svctool $<TARGET_FILE:svctool>
      --work ${CMAKE_CURRENT_BINARY_DIR}/wine-msi)
  set_tests_properties(WineMsi.InstallUpgradeRemove PROPERTIES TIMEOUT 600
    PASS_REGULAR_EXPRESSION "PASS: msi install, upgrade and removal")
endif()
