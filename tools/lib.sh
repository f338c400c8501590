# What the project's scripts share. Sourced from the project's top folder.

PACKAGES_build="g++ cmake ninja-build ccache pkg-config git libcurl4-openssl-dev libasio-dev libboost-json1.81-dev libfmt-dev libsystemd-dev libfuse3-dev fuse3 libsqlite3-dev libsecret-1-dev libssl-dev
  libglib2.0-dev zlib1g-dev
  libcli11-dev libcpp-httplib-dev libgtest-dev libgmock-dev libbenchmark-dev libvips-dev libavformat-dev libavcodec-dev
  libavutil-dev libswscale-dev libseccomp-dev libisal-dev shared-mime-info ca-certificates"
PACKAGES_try="libnss-wrapper imagemagick curl rsync git vim"
PACKAGES_test="$PACKAGES_try libglib2.0-bin openssl sqlite3 python3 uidmap gnome-keyring dbus dbus-daemon libsecret-tools ffmpeg libvips-tools
  libheif-examples libjxl-tools libimage-exiftool-perl nano make gvfs trash-cli"
PACKAGES_desktop="thunar tumbler xvfb xdotool at-spi2-core gir1.2-atspi-2.0 python3-gi dbus-daemon gvfs attr"
PACKAGES_office="libreoffice-writer-nogui"
PACKAGES_check="clang-19 clang-tidy-19 clang-format-19 libclang-rt-19-dev"
PACKAGES_tsan="clang-19 libclang-rt-19-dev"
PACKAGES_fuzz="clang-19 libclang-rt-19-dev"
PACKAGES_package="dpkg-dev file help2man lintian"
PACKAGES_bench="nginx-light rclone procps sqlite3 time libvips-tools"

# install_packages SET...: installs what is missing of the package sets named, and says so.
install_packages() {
  local missing=() set_name package variable
  for set_name in "$@"; do
    variable=PACKAGES_$set_name
    for package in ${!variable}; do
      dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
    done
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing Debian packages: ${missing[*]}"
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "Run as root, or install them yourself: apt-get install ${missing[*]}" >&2; return 1; }
    as_root=(sudo)
  fi
  "${as_root[@]}" apt-get update -q=2
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -q=2 -y --no-install-recommends "${missing[@]}" >/dev/null
}

# build PRESET [TARGET...]
build() {
  local preset=$1
  shift
  cmake --preset "$preset" >"/tmp/vondle-configure.$$" || { cat "/tmp/vondle-configure.$$"; rm -f "/tmp/vondle-configure.$$"; return 1; }
  rm -f "/tmp/vondle-configure.$$"
  cmake --build "build/$preset" -- "$@"
}

source_files() { git ls-files --cached --others --exclude-standard '*.h' '*.cpp'; }
