# Read by cpack before it installs the project into its staging tree. The install script runs in
# cpack's own process: the environment tells it that the files are for a package, whose udev rule
# belongs in udev's directory whatever the package's prefix.
set(ENV{QV_PACKAGING} 1)
