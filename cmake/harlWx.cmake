# What code that includes harl's headers needs of wxWidgets base (kz::String holds a wxString),
# put on the INTERFACE target `target` from the variables that find_package(wxWidgets
# COMPONENTS base) sets. The build and the installed package both use it.
function(harl_wx_usage target)
    target_include_directories(${target} SYSTEM INTERFACE ${wxWidgets_INCLUDE_DIRS})
    target_compile_definitions(${target} INTERFACE ${wxWidgets_DEFINITIONS} wxUSE_GUI=0)
    target_link_libraries(${target} INTERFACE ${wxWidgets_LIBRARIES})
endfunction()
