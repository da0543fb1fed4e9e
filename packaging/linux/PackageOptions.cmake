# Read by cpack once for each kind of package.
if(CPACK_GENERATOR STREQUAL "DEB")
    # Otherwise it stands before every component's own summary.
    set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
elseif(CPACK_GENERATOR STREQUAL "RPM")
    # Debian's debug symbol packages need the symbols until cpack has split them off; an RPM has none.
    set(CPACK_STRIP_FILES ON)
    # The same sources give the same bytes wherever and whenever they are packed.
    set(CPACK_RPM_SPEC_MORE_DEFINE "%define _buildhost reproducible
%define use_source_date_epoch_as_buildtime 1
%define clamp_mtime_to_source_date_epoch 1
%define _build_id_links none")
endif()
