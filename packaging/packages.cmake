# What is installed, and the packages that CPack makes of it: kxadmin and kxsandbox, each as .deb and
# as .rpm. A component named after a kind of package goes into that kind only; the component
# "elsewhere" is what Debian wants in other places: the .rpm and `cmake --install` have it.
include(GNUInstallDirs)
set(PACKAGING ${PROJECT_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${PACKAGING})

# The moment of the release: the date of its changelogs and of every file in its packages, which come
# out the same whenever and wherever they are made.
set(RELEASE_EPOCH 1795392000)
set(given "$ENV{SOURCE_DATE_EPOCH}")
set(ENV{SOURCE_DATE_EPOCH} ${RELEASE_EPOCH})
string(TIMESTAMP RELEASE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(ENV{SOURCE_DATE_EPOCH} "${given}")

# Of a client without the sandbox nothing of the sandbox is installed.
set(PACKAGES kxadmin)
if(KX_SANDBOX)
  list(APPEND PACKAGES kxsandbox)
endif()

# install_to(<package> <directory> <file>... [AS <name>] [IN <component>]): also in packages of one
# kind only where a component is named.
function(install_to package directory)
  cmake_parse_arguments(PARSE_ARGV 2 to "" "AS;IN" "")
  if(NOT package IN_LIST PACKAGES)
    return()
  endif()
  set(component COMPONENT ${package})
  if(to_IN STREQUAL "deb")
    set(component COMPONENT ${package}-deb EXCLUDE_FROM_ALL)
  elseif(to_IN)
    set(component COMPONENT ${package}-${to_IN})
  endif()
  if(to_AS)
    list(APPEND component RENAME ${to_AS})
  endif()
  install(FILES ${to_UNPARSED_ARGUMENTS} DESTINATION ${directory} ${component})
endfunction()

# packed(<package> <source> <target>): has <target>.gz made of the source with the package's programs,
# the same at every build.
function(packed package source target)
  if(package IN_LIST PACKAGES)
    add_custom_command(OUTPUT ${PACKAGING}/${target}.gz
                       COMMAND gzip -9nc ${source} > ${PACKAGING}/${target}.gz
                       DEPENDS ${source} VERBATIM)
    add_custom_target(${target}.gz ALL DEPENDS ${PACKAGING}/${target}.gz)
    add_dependencies(${package} ${target}.gz)
  endif()
endfunction()

# program(<package> <target>)
function(program package target)
  if(package IN_LIST PACKAGES)
    install(TARGETS ${target} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${package})
  endif()
endfunction()

# second_name(<package> <directory> <file> <name>): a link of that name to what is installed there.
function(second_name package directory file name)
  file(CREATE_LINK ${file} ${PACKAGING}/${name} SYMBOLIC)
  install_to(${package} ${directory} ${PACKAGING}/${name})
endfunction()

# manual(<package> <page>)
function(manual package page)
  packed(${package} ${PROJECT_SOURCE_DIR}/docs/${page} ${page})
  install_to(${package} ${CMAKE_INSTALL_MANDIR}/man1 ${PACKAGING}/${page}.gz)
endfunction()

# document(<package> <file or directory>...)
function(document package)
  set(directory ${CMAKE_INSTALL_DATADIR}/doc/${package})
  foreach(item ${ARGN})
    if(IS_DIRECTORY ${PROJECT_SOURCE_DIR}/${item})
      install(DIRECTORY ${item} DESTINATION ${directory} COMPONENT ${package}
              USE_SOURCE_PERMISSIONS)
    else()
      install_to(${package} ${directory} ${item})
    endif()
  endforeach()
endfunction()

set(BASH ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
set(FISH ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
set(ZSH ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
set(ZSH_DEBIAN ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)

# completions(<program>): of the package of the same name.
function(completions program)
  install_to(${program} ${BASH} completion/${program}.bash AS ${program})
  install_to(${program} ${FISH} completion/${program}.fish)
  install_to(${program} ${ZSH_DEBIAN} completion/_${program} IN deb)
  install_to(${program} ${ZSH} completion/_${program} IN elsewhere)
endfunction()

# Programs, manual pages, completions and documents: a line for each.
program(kxadmin kxadmin)
program(kxadmin kxadmin-strict)
program(kxsandbox kxsandbox)

manual(kxadmin kxadmin.1)
manual(kxadmin kxadmin-strict.1)
manual(kxsandbox kxsandbox.1)

completions(kxadmin)
second_name(kxadmin ${BASH} kxadmin kxadmin-strict)
second_name(kxadmin ${FISH} kxadmin.fish kxadmin-strict.fish)
completions(kxsandbox)

document(kxadmin packaging/README.md)
document(kxadmin docs/operations.md)
document(kxadmin docs/protocol.md)
document(kxadmin docs/wireshark)
document(kxadmin operations)
install(PROGRAMS scripts/plot-bench.sh DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kxadmin/examples
        COMPONENT kxadmin)
install_to(kxadmin ${CMAKE_INSTALL_DATADIR}/doc/kxadmin/examples scripts/need.sh)

# The changes, what may be done with the packages, and what lintian need not say of them.
packed(kxadmin ${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog)
install_to(kxadmin ${CMAKE_INSTALL_DATADIR}/doc/kxadmin ${PACKAGING}/changelog.gz IN deb)
install_to(kxadmin ${CMAKE_INSTALL_DATADIR}/doc/kxadmin CHANGELOG.md IN elsewhere)
configure_file(packaging/changelog.in ${PACKAGING}/changelog @ONLY)
packed(kxadmin ${PACKAGING}/changelog changelog.Debian)
set(GLIBC 2.34) # scripts/package.sh compares it with what the programs ask for
configure_file(packaging/INSTALL.in ${PACKAGING}/INSTALL @ONLY)
foreach(component ${PACKAGES})
  document(${component} packaging/copyright)
  install_to(${component} ${CMAKE_INSTALL_DATADIR}/doc/${component}
             ${PACKAGING}/changelog.Debian.gz IN deb)
  configure_file(packaging/lintian-overrides.in ${PACKAGING}/overrides/${component} @ONLY)
  install_to(${component} ${CMAKE_INSTALL_DATADIR}/lintian/overrides
             ${PACKAGING}/overrides/${component} IN deb)
endforeach()

set(CPACK_GENERATOR DEB RPM)
configure_file(packaging/kinds.cmake.in ${PACKAGING}/kinds.cmake @ONLY)
set(CPACK_PROJECT_CONFIG_FILE ${PACKAGING}/kinds.cmake)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "The kxadmin authors <kxadmin@localhost>")
set(CPACK_PACKAGE_VENDOR "The kxadmin authors")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)

set(KXADMIN_SUMMARY "administration client of KXSRV repository servers")
set(KXADMIN_TEXT "Shows statistics, connections, locks and options of a KXSRV, sets its logging
level, ends connections, stops it, tests and copies repositories and measures
reads. kxadmin-strict does the same with an exit status that tells whether it
was done.")
set(KXSANDBOX_SUMMARY "small KXSRV repository server on loopback")
set(KXSANDBOX_TEXT "Serves the files below a directory to kxadmin on loopback addresses only, for
trying out and testing. It can run one command and end with it.")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_KXADMIN_PACKAGE_SUGGESTS "kxsandbox, gnuplot-nox")
set(CPACK_DEBIAN_KXSANDBOX_PACKAGE_RECOMMENDS kxadmin)

# As Fedora spells it, whose package "filesystem" has the directories.
set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_RELEASE 1)
set(CPACK_RPM_PACKAGE_RELEASE_DIST ON)
set(CPACK_RPM_PACKAGE_LICENSE LicenseRef-none-chosen)
set(CPACK_RPM_COMPRESSION_TYPE xz)
set(CPACK_RPM_PACKAGE_AUTOREQ ON)
set(CPACK_RPM_KXADMIN_PACKAGE_GROUP "Applications/Internet")
set(CPACK_RPM_KXSANDBOX_PACKAGE_GROUP "Development/Tools")
set(CPACK_RPM_KXSANDBOX_PACKAGE_RECOMMENDS kxadmin)
foreach(directory bash-completion bash-completion/completions fish fish/vendor_completions.d man
                  man/man1 zsh zsh/site-functions)
  list(APPEND CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION /usr/share/${directory})
endforeach()
set(CPACK_RPM_SPEC_MORE_DEFINE "%global use_source_date_epoch_as_buildtime 1
%global clamp_mtime_to_source_date_epoch 1
%global _buildhost localhost
%global _build_id_links none")

foreach(component ${PACKAGES})
  string(TOUPPER ${component} NAME)
  set(CPACK_DEBIAN_${NAME}_PACKAGE_NAME ${component})
  set(CPACK_DEBIAN_${NAME}_DESCRIPTION "${${NAME}_SUMMARY}\n${${NAME}_TEXT}")
  set(CPACK_RPM_${NAME}_PACKAGE_NAME ${component})
  set(CPACK_RPM_${NAME}_PACKAGE_SUMMARY "${${NAME}_SUMMARY}")
  set(CPACK_RPM_${NAME}_PACKAGE_DESCRIPTION "${${NAME}_TEXT}")
  set(CPACK_RPM_${NAME}_USER_FILELIST "%license /usr/share/doc/${component}/copyright")
endforeach()
include(CPack)
foreach(component ${PACKAGES})
  cpack_add_component(${component} GROUP ${component})
  cpack_add_component(${component}-deb GROUP ${component})
  cpack_add_component(${component}-elsewhere GROUP ${component})
endforeach()
