# Shell helpers shared by make-sample.sh and make-fixtures.sh (sourced).
#
# Every output is made from ffmpeg's synthetic lavfi sources with bit-exact
# flags, one encoder thread and a fixed creation time, so the same ffmpeg
# build gives byte-identical files on every run.

FF=(ffmpeg -hide_banner -loglevel error -nostdin -y)
# Output options: place just before the output file name.
BITEXACT=(-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -threads 1
          -metadata creation_time=2020-01-01T00:00:00Z)

has_encoder() {
  ffmpeg -hide_banner -encoders 2>/dev/null | awk '{print $2}' | grep -qx "$1"
}

require_tools() {
  local tool
  for tool in "$@"; do
    if ! command -v "$tool" >/dev/null 2>&1; then
      echo "$(basename "$0"): $tool not found (run scripts/install-deps.sh)" >&2
      exit 1
    fi
  done
}
