# What is installed, and the two Debian packages that CPack makes of it: kxadmin and kxsandbox.
include(GNUInstallDirs)
set(PACKAGING ${PROJECT_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${PACKAGING})

# pack(<source> <target>): has <target>.gz made of the source, the same at every build.
function(pack source target)
  add_custom_command(OUTPUT ${PACKAGING}/${target}.gz
                     COMMAND gzip -9nc ${source} > ${PACKAGING}/${target}.gz
                     DEPENDS ${source} VERBATIM)
  set_property(GLOBAL APPEND PROPERTY PACKED ${PACKAGING}/${target}.gz)
endfunction()

# install_link(<to> <name> <directory>): a second name for a file of the package kxadmin.
function(install_link to name directory)
  file(CREATE_LINK ${to} ${PACKAGING}/${name} SYMBOLIC)
  install(FILES ${PACKAGING}/${name} DESTINATION ${directory} COMPONENT kxadmin)
endfunction()

configure_file(packaging/changelog.in ${PACKAGING}/changelog @ONLY)
pack(${PACKAGING}/changelog changelog.Debian)
foreach(component kxadmin kxsandbox)
  install(TARGETS ${component} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${component})
  install(FILES ${PACKAGING}/changelog.Debian.gz packaging/copyright
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${component} COMPONENT ${component})
  configure_file(packaging/lintian-overrides.in ${PACKAGING}/overrides/${component} @ONLY)
  install(FILES ${PACKAGING}/overrides/${component}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
          COMPONENT ${component} EXCLUDE_FROM_ALL) # in a package only
  pack(${PROJECT_SOURCE_DIR}/docs/${component}.1 ${component}.1)
  install(FILES ${PACKAGING}/${component}.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
          COMPONENT ${component})
endforeach()

install(TARGETS kxadmin-strict DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT kxadmin)
pack(${PROJECT_SOURCE_DIR}/docs/kxadmin-strict.1 kxadmin-strict.1)
install(FILES ${PACKAGING}/kxadmin-strict.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        COMPONENT kxadmin)

set(BASH_COMPLETIONS ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES completion/kxadmin.bash DESTINATION ${BASH_COMPLETIONS} RENAME kxadmin
        COMPONENT kxadmin)
install_link(kxadmin kxadmin-strict ${BASH_COMPLETIONS})
set(FISH_COMPLETIONS ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
install(FILES completion/kxadmin.fish DESTINATION ${FISH_COMPLETIONS} COMPONENT kxadmin)
install_link(kxadmin.fish kxadmin-strict.fish ${FISH_COMPLETIONS})
# Where zsh looks: below /usr, as in the package, and elsewhere.
set(ZSH_VENDOR ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
set(ZSH_SITE ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(ZSH_SITE ${ZSH_VENDOR})
endif()
install(FILES completion/_kxadmin DESTINATION ${ZSH_VENDOR} COMPONENT kxadmin EXCLUDE_FROM_ALL)
install(FILES completion/_kxadmin DESTINATION ${ZSH_SITE} COMPONENT unpackaged)

file(GLOB PAGES CONFIGURE_DEPENDS docs/*.md)
install(FILES README.md ${PAGES} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kxadmin
        COMPONENT kxadmin)
install(DIRECTORY operations DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kxadmin COMPONENT kxadmin
        USE_SOURCE_PERMISSIONS PATTERN __pycache__ EXCLUDE)
pack(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog)
install(FILES ${PACKAGING}/changelog.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kxadmin
        COMPONENT kxadmin)

get_property(PACKED GLOBAL PROPERTY PACKED)
add_custom_target(packed ALL DEPENDS ${PACKED})

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL kxadmin kxsandbox)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "The kxadmin authors <kxadmin@localhost>")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_KXADMIN_PACKAGE_NAME kxadmin)
set(CPACK_DEBIAN_KXADMIN_DESCRIPTION "administration client of KXSRV repository servers
Shows statistics, connections, locks and options of a KXSRV, sets its logging
level, ends connections, stops it, tests and copies repositories and measures
reads. kxadmin-strict does the same with an exit status that tells whether it
was done.")
set(CPACK_DEBIAN_KXADMIN_PACKAGE_SUGGESTS kxsandbox)
set(CPACK_DEBIAN_KXSANDBOX_PACKAGE_NAME kxsandbox)
set(CPACK_DEBIAN_KXSANDBOX_PACKAGE_RECOMMENDS kxadmin)
set(CPACK_DEBIAN_KXSANDBOX_DESCRIPTION "small KXSRV repository server on loopback
Serves the files below a directory to kxadmin on loopback addresses only, for
trying out and testing. It can run one command and end with it.")
include(CPack)
