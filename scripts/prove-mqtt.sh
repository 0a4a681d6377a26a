#!/usr/bin/env bash
# Kills a real broker and tavi-mqtt with SIGKILL while events are saved, and counts what is lost, out of order or told twice:
#   scripts/prove-mqtt.sh [--events 200] [--broker-kills 50] [--program-kills 50] [--build DIR]
# The tests' short form with other numbers; a kill takes about a second. Ends with 1 when anything was lost.
source "$(dirname "$0")/common.sh"

build=build/debug
export TAVI_MQTT_EVENTS=200 TAVI_MQTT_BROKER_KILLS=50 TAVI_MQTT_PROGRAM_KILLS=50
while [ $# -gt 0 ]; do
  case $1 in
    --events) TAVI_MQTT_EVENTS=${2:?--events takes a number} ;;
    --broker-kills) TAVI_MQTT_BROKER_KILLS=${2:?--broker-kills takes a number} ;;
    --program-kills) TAVI_MQTT_PROGRAM_KILLS=${2:?--program-kills takes a number} ;;
    --build) build=${2:?--build takes a build tree} ;;
    *) say "unknown option $1: --events N, --broker-kills N, --program-kills N and --build DIR are right"; exit 2 ;;
  esac
  shift 2
done
scripts/setup.sh --test
[ -d "$build" ] || cmake --preset debug
cmake --build "$build" --parallel "$jobs" --target MqttTests tavi-mqtt >&2
say "load $(cut -d' ' -f1-3 /proc/loadavg)"
exec "$build/bin/MqttTests" --gtest_filter='PublishTest.NothingIsLostWhereBrokerAndProgramAreKilled'
