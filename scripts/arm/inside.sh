#!/usr/bin/env bash
# The part of scripts/test-arm.sh that runs in the chroot: builds, tests, records one event in the simulated car, packs.
source "$(dirname "$0")/../common.sh"

preset=$TAVI_ARM_ARCHITECTURE
build=build/$preset
summary=$build/arm-summary.txt
mkdir -p "$build"
: > "$summary"
failed=0
# One line of the summary: its first word tells which step it is of.
tell() { printf '%s\n' "$*" | tee -a "$summary"; }

build_tree() {
  local start=$SECONDS tests=ON
  case " $TAVI_ARM_STEPS " in *' free '*) tests=OFF ;; esac
  say "building $build"
  # An emulated processor is some ten times slower than the clock wants it.
  if cmake --preset "$preset" -DTAVI_WERROR=ON -DTAVI_BUILD_TESTS="$tests" -DTAVI_BUILD_BENCH="$tests" -DTAVI_TEST_PATIENCE=10 -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_SKIP_INSTALL_RPATH=ON >&2 && cmake --build --preset "$preset" --parallel "$jobs" >&2; then
    tell "built: $(file -b "$build/bin/tavi-recorder" | cut -d, -f1,2), $("$TAVI_ARM_TRIPLE-g++" -dumpfullversion), $((SECONDS - start)) s"
  else
    tell "built: FAILED"
    exit 1
  fi
}

# What skips.txt names is left out and counted, or put off. That, and what fails, is tried by slower clocks, one at a time: the
# emulator is late.
run_tests() {
  local which=() late speed
  [ -z "$TAVI_ARM_TESTS" ] || which=(-R "$TAVI_ARM_TESTS")
  which+=(-E "$(python3 scripts/arm/summary.py skips "$preset")|$(python3 scripts/arm/summary.py skips slow)")
  rm -f "$build"/arm-tests*.xml
  say "testing $build"
  ctest --test-dir "$build" --parallel "$jobs" --output-junit "$PWD/$build/arm-tests.xml" "${which[@]}" >&2 || true
  for speed in 0.1 0.03; do
    late=$(python3 scripts/arm/summary.py late "$build" "$TAVI_ARM_TESTS")
    [ -n "$late" ] || break
    say "what is late, by a clock at $speed of the speed"
    # The emulator hands it to emulated programs only: the machine's own cannot load that clock.
    QEMU_SET_ENV=LD_PRELOAD=$PWD/$build/lib/libtavi_fast_clock.so,TAVI_CLOCK_SPEED=$speed ctest --test-dir "$build" \
      --output-on-failure --output-junit "$PWD/$build/arm-tests-$speed.xml" -R "$late" >&2 || true
  done
  python3 scripts/arm/summary.py tests "$preset" "$build" "$TAVI_ARM_TESTS" | tee -a "$summary"
  [ "${PIPESTATUS[0]}" -eq 0 ] || failed=1
}

# The service in the simulated car, as a unit runs it, and one event by command. Small pictures, and a clock at a tenth of the
# speed: what the unit encodes in hardware is emulated software here.
record_event() {
  local out=$PWD/$build/arm-event bin=$PWD/$build/bin recorder
  rm -rf "$out"
  mkdir -p "$out"
  cat > "$out/settings.json" << 'END'
{"pipeline": {"camera0": {"width": 320, "height": 180}, "camera1": {"width": 320, "height": 180}},
 "events": {"withPreview": false}, "storage": {"minFreeBytes": 0}}
END
  say "recording an event"
  LD_PRELOAD=$PWD/$build/lib/libtavi_fast_clock.so TAVI_CLOCK_SPEED=0.1 GST_REGISTRY=$out/registry \
    timeout -k 5 900 "$bin/tavi-recorder" run --simulate --config "$out/settings.json" \
    --output "$out" --control "$out/ctl/socket" > "$out/log" 2>&1 &
  recorder=$!
  # Until each source has been there for three seconds.
  until timeout -k 5 60 "$bin/tavi-ctl" --json --control "$out/ctl/socket" status 2> /dev/null | python3 scripts/arm/summary.py filled 3; do
    kill -0 "$recorder" 2> /dev/null || { tell "event: FAILED, $(tail -n 1 "$out/log")"; return 1; }
    sleep 2
  done
  timeout -k 5 600 "$bin/tavi-ctl" --json --control "$out/ctl/socket" event --before 2 --duration 4 --wait > "$out/reply.json" || true
  kill -TERM "$recorder"
  wait "$recorder" || true
  python3 scripts/arm/summary.py event "$out/reply.json" | tee -a "$summary"
  [ "${PIPESTATUS[0]}" -eq 0 ] || return 1
  timeout -k 5 100 "$bin/tavi-verify" "$out"/events/*/ > "$out/verified" 2>&1 || { tell "event: FAILED, $(tail -n 1 "$out/verified")"; return 1; }
  tell "event: $(sed 's/.*: \(intact, signed\).*/\1/' "$out/verified")"
}

# Packed by the tree's own rules; the programs are started from what was unpacked.
make_package() {
  local deb unpacked=$build/arm-unpacked version
  say "packing"
  rm -rf "$build/package" "$unpacked"
  (
    eval "$(dpkg-architecture -f -a"$TAVI_ARM_ARCHITECTURE" --print-set 2> /dev/null)"
    BUILT=1 BUILD_DIR=$build PACKAGE_DIR=$build/package debian/rules binary >&2
  ) || { tell "package: FAILED"; return 1; }
  for deb in "$build"/package/*.deb; do
    dpkg-deb -x "$deb" "$unpacked"
    [ "$(dpkg-deb -f "$deb" Architecture)" = "$TAVI_ARM_ARCHITECTURE" ] ||
      { tell "package: FAILED, $deb is for $(dpkg-deb -f "$deb" Architecture)"; return 1; }
    tell "package: ${deb##*/}, $(du -k "$deb" | cut -f1) KiB, needs $(dpkg-deb -f "$deb" Depends)"
  done
  [ -e "$unpacked/usr/lib/$TAVI_ARM_TRIPLE/gstreamer-1.0" ] || { tell "package: FAILED, nothing in usr/lib/$TAVI_ARM_TRIPLE"; return 1; }
  # Its libraries are in a package of their own, which is not installed either.
  version=$(LD_LIBRARY_PATH=$unpacked/usr/lib/$TAVI_ARM_TRIPLE "$unpacked/usr/bin/tavi-recorder" --version) || { tell "package: FAILED, what was unpacked does not start"; return 1; }
  tell "package: $version starts from it"
}

# The hardware elements that cost nothing, which no package has. Told of tests and benchmarks it builds neither.
build_free_elements() {
  if cmake --preset "$preset" -DTAVI_BUILD_TESTS=ON -DTAVI_BUILD_BENCH=ON >&2 && cmake --build --preset "$preset" --target FreeElements >&2; then
    tell "free elements: $build/lib/free"
  else
    tell "free elements: FAILED"
    return 1
  fi
}

# Half a minute of the program at work, by a plug-in of the emulator; the first 40 seconds are its start.
count_instructions() {
  local out=$PWD/$build/cost counter
  say "counting instructions for 70 s"
  rm -rf "$out"
  mkdir -p "$out"
  g++ -std=c++20 -O2 -shared -fPIC bench/Cost/InstructionCount.cpp -o "$out/counter.so"
  GST_REGISTRY=$out/registry GST_REGISTRY_FORK=no GST_PLUGIN_PATH=$PWD/$build/lib/free timeout -k 5 200 \
    qemu-arm -plugin "$out/counter.so,out=$out/count,first=40,second=70" \
    "$PWD/$build/bin/tavi-recorder" --simulate --output "$out/files" --collect-after 600 > "$out/log" 2>&1 &
  counter=$!
  while [ ! -e "$out/count.2" ] && kill -0 "$counter" 2> /dev/null; do sleep 1; done
  kill "$counter" 2> /dev/null || true
  wait "$counter" || true
  [ -e "$out/count.2" ] || { tell "cost: FAILED, $(tail -n 1 "$out/log")"; return 1; }
  python3 bench/Cost/by_object.py "$out/count" 30 | sed 's/^/cost: /' | tee -a "$summary"
}

case " $TAVI_ARM_STEPS " in *' build '*) build_tree ;; esac
case " $TAVI_ARM_STEPS " in *' test '*) run_tests ;; esac
case " $TAVI_ARM_STEPS " in *' event '*) record_event || failed=1 ;; esac
case " $TAVI_ARM_STEPS " in *' package '*) make_package || failed=1 ;; esac
case " $TAVI_ARM_STEPS " in *' free '*) build_free_elements || failed=1 ;; esac
case " $TAVI_ARM_STEPS " in *' cost '*) count_instructions || failed=1 ;; esac
exit "$failed"
