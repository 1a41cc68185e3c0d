# vskctl: command line (CLI11), JSON (nlohmann-json), readiness for systemd (libsystemd);
# the HTTP server of serve-metrics is libevent's, which the library links already.
find_package(CLI11 REQUIRED)
find_package(nlohmann_json REQUIRED)
target_link_libraries(${name} PRIVATE CLI11::CLI11 nlohmann_json::nlohmann_json
                                      PkgConfig::SYSTEMD)
