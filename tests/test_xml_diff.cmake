# pugixml is the oracle of the differential test; it is linked here only.
find_package(pugixml REQUIRED)
target_link_libraries(${_name} PRIVATE pugixml::pugixml)
