#!/usr/bin/env bash
# Stands in for dfu-util 0.9 talking to one simulated Lumaxis unit in its DfuSe bootloader.
set -uo pipefail

sim_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
configs_dir="$sim_dir/configs"
images_dir="$sim_dir/images"
# The unit's state is the user's: the script's own folder may be a system one. Whoever runs the
# script, by hand or through the program, gets the same folder from the same environment.
if [[ -n ${LUMAXIS_SIMULATOR_STATE:-} ]]; then
    state_dir=$LUMAXIS_SIMULATOR_STATE
elif [[ ${XDG_RUNTIME_DIR:-} == /* && -d $XDG_RUNTIME_DIR && -w $XDG_RUNTIME_DIR ]]; then
    state_dir=$XDG_RUNTIME_DIR/lumaxis-upgrade/simulator-state
elif [[ ${XDG_CACHE_HOME:-} == /* ]]; then
    state_dir=$XDG_CACHE_HOME/lumaxis-upgrade/simulator-state
else
    state_dir=${HOME:-}/.cache/lumaxis-upgrade/simulator-state
fi

# dfu-util's exit codes (sysexits.h).
readonly EX_USAGE=64 EX_NOINPUT=66 EX_SOFTWARE=70 EX_CANTCREAT=73 EX_IOERR=74

# The STM32F4 memories the bootloader exposes on alternate settings 0 and 2.
readonly flash_base=$((0x08000000)) flash_size=$((0x100000))
readonly otp_base=$((0x1FFF7800)) otp_size=528
# Flash sector boundaries (offsets): 4 x 16K, 1 x 64K, 7 x 128K.
readonly sector_ends=(16384 32768 49152 65536 131072 262144 393216 524288 655360 786432 917504
    1048576)

readonly default_scenario=default
readonly setting_keys=(SERIALS LISTING_LINES OTP_IMAGE FLASH_IMAGE FAIL_UPLOAD_OTP FAIL_UPLOAD_FW
    FAIL_DOWNLOAD CORRUPT_WRITES TIME_SCALE ABSENT_MS)

die() { # exit code, message: fails the way dfu-util does, the message on standard error
    echo "dfu-util: $2" >&2
    exit "$1"
}

now_ms() { date +%s%3N; }

sleep_ms() {
    local ms=$1
    if ((ms > 0)); then
        sleep "$((ms / 1000)).$(printf '%03d' $((ms % 1000)))"
    fi
}

banner() {
    printf '%s\n' "dfu-util 0.9" "" \
        "Copyright 2005-2009 Weston Schmidt, Harald Welte and OpenMoko Inc." \
        "Copyright 2010-2016 Tormod Volden and Stefan Schmidt" \
        "This program is Free Software and has ABSOLUTELY NO WARRANTY" \
        "Please report bugs to http://sourceforge.net/p/dfu-util/tickets/" ""
}

# Parses a C-style unsigned number (0x hex or decimal) into $number; false when it is none.
parse_number() {
    if [[ $1 =~ ^0[xX][0-9a-fA-F]{1,8}$ ]]; then
        number=$(($1))
    elif [[ $1 =~ ^(0|[1-9][0-9]{0,9})$ ]]; then
        number=$((10#$1))
    else
        return 1
    fi
    ((number <= 0xFFFFFFFF))
}

# ---- settings and state ---------------------------------------------------------------------

# Reads KEY=VALUE lines of a scenario file; only the known keys, nothing is executed.
#   SERIALS          serial numbers of the attached units, blank-separated (none: no unit)
#   LISTING_LINES    listing lines per unit, one per alternate setting (at most 4)
#   OTP_IMAGE        images/ file holding the OTP area
#   FLASH_IMAGE      images/ file holding the flash contents from 0x08000000
#   FAIL_UPLOAD_OTP  1: every OTP upload fails
#   FAIL_UPLOAD_FW   1: every flash upload fails
#   FAIL_DOWNLOAD    1: a download breaks off half-way, the unit stays in its bootloader
#   CORRUPT_WRITES   1: the last byte of every written image keeps one wrong bit
#   TIME_SCALE       imitated durations in percent of a real unit's (200: twice as slow)
#   ABSENT_MS        how long the unit restarts after a download with "leave"
load_settings() {
    SERIALS="3473375A3334" LISTING_LINES=4 OTP_IMAGE="" FLASH_IMAGE="" FAIL_UPLOAD_OTP=0
    FAIL_UPLOAD_FW=0 FAIL_DOWNLOAD=0 CORRUPT_WRITES=0 TIME_SCALE=100 ABSENT_MS=2000
    local key value known k
    while IFS='=' read -r key value || [[ -n $key ]]; do
        [[ -z $key || $key == \#* ]] && continue
        value=${value%\"}
        value=${value#\"}
        known=0
        for k in "${setting_keys[@]}"; do
            [[ $key == "$k" ]] && known=1
        done
        ((known)) || die $EX_SOFTWARE "simulator: unknown setting '$key' in $1"
        printf -v "$key" '%s' "$value"
    done <"$1"
    local n
    for n in LISTING_LINES FAIL_UPLOAD_OTP FAIL_UPLOAD_FW FAIL_DOWNLOAD CORRUPT_WRITES TIME_SCALE \
        ABSENT_MS; do
        [[ ${!n} =~ ^[0-9]{1,7}$ ]] || die $EX_SOFTWARE "simulator: setting $n in $1 is not a number"
    done
    [[ $SERIALS =~ ^([0-9A-Fa-f]+( [0-9A-Fa-f]+)*)?$ ]] ||
        die $EX_SOFTWARE "simulator: SERIALS in $1 must be hexadecimal numbers"
}

write_settings() {
    local k
    for k in "${setting_keys[@]}"; do
        printf '%s=%s\n' "$k" "${!k}"
    done
}

# Writes stdin to a state file through a temporary file and a rename, so no reader ever sees a
# half-written file.
replace_state_file() {
    local tmp
    tmp=$(mktemp "$state_dir/.$1.XXXXXX") || die $EX_CANTCREAT "simulator: cannot write $state_dir"
    if ! cat >"$tmp" || ! mv -f "$tmp" "$state_dir/$1"; then
        rm -f "$tmp"
        die $EX_CANTCREAT "simulator: cannot write $state_dir/$1"
    fi
}

# Bytes of value 0xFF, the contents of erased flash and unprogrammed OTP.
erased() { head -c "$1" /dev/zero | tr '\0' '\377'; }

# A memory image: the file's bytes, cut or padded with erased bytes to the size.
memory_from() {
    local size
    size=$(stat -c %s "$1")
    head -c "$2" "$1"
    if ((size < $2)); then
        erased $(($2 - size))
    fi
}

setup_prepared_config() {
    local name=$1 config="$configs_dir/$1.conf"
    [[ $name =~ ^[A-Za-z0-9_-]+$ && -f $config ]] ||
        die $EX_USAGE "simulator: no prepared configuration named '$name' (see $configs_dir)"
    load_settings "$config"
    local image
    for image in "$OTP_IMAGE" "$FLASH_IMAGE"; do
        [[ -n $image && -f "$images_dir/$image" ]] ||
            die $EX_NOINPUT "simulator: configuration '$name' needs the image '$image' in $images_dir"
    done
    mkdir -p "$state_dir" || die $EX_CANTCREAT "simulator: cannot create $state_dir"
    rm -f "$state_dir/absent_until" "$state_dir/unplugged"
    memory_from "$images_dir/$FLASH_IMAGE" $flash_size | replace_state_file flash.bin || exit
    if ((CORRUPT_WRITES)); then
        corrupt_byte $(($(stat -c %s "$images_dir/$FLASH_IMAGE") - 1))
    fi
    memory_from "$images_dir/$OTP_IMAGE" $otp_size | replace_state_file otp.bin || exit
    write_settings | replace_state_file settings || exit
    echo "$name" | replace_state_file scenario || exit
    echo "Prepared configuration '$name' in $state_dir"
}

load_state() {
    if [[ ! -f "$state_dir/settings" || ! -f "$state_dir/flash.bin" || ! -f "$state_dir/otp.bin" ]]
    then
        setup_prepared_config "$default_scenario" >/dev/null
    fi
    load_settings "$state_dir/settings"
}

# The serial numbers the bus shows now: none while unplugged or while the unit restarts.
attached_serials() {
    attached=()
    [[ -e "$state_dir/unplugged" ]] && return
    if [[ -f "$state_dir/absent_until" ]]; then
        local until
        until=$(<"$state_dir/absent_until")
        if [[ $until =~ ^[0-9]+$ ]] && (($(now_ms) < until)); then
            return
        fi
        rm -f "$state_dir/absent_until"
    fi
    read -r -a attached <<<"$SERIALS"
}

# Scales an imitated duration: normal speed imitates a real unit, fast mode nearly nothing.
duration_ms() {
    local ms=$(($1 * TIME_SCALE / 100))
    if ((fast)); then
        ms=$((ms / 1000))
    fi
    echo "$ms"
}

# dfu-util's progress line, redrawn with carriage returns: the label ("Erase   ", "Download",
# "Upload"), a tab, 25 bar cells, the percentage and the byte count; "<label> done." once full.
progress() { # label, bytes, duration in ms
    local label=$1 bytes=$2 ms=$3 step bar
    if ((ms > 0)); then
        for step in 1 2 3 4 5 6 7 8 9; do
            sleep_ms $((ms / 10))
            printf -v bar '%*s' $((step * 25 / 10)) ''
            printf '\r%s\t[%-25s] %3d%% %12d bytes' "$label" "${bar// /=}" $((step * 10)) \
                $((bytes * step / 10))
        done
        sleep_ms $((ms / 10))
    fi
    printf -v bar '%25s' ''
    printf '\r%s\t[%s] 100%% %12d bytes\n%s done.\n' "$label" "${bar// /=}" "$bytes" "$label"
}

# Flips the lowest bit of one flash byte: a cell that did not take its program.
corrupt_byte() {
    local offset=$1 byte
    byte=$(od -An -tu1 -j "$offset" -N1 "$state_dir/flash.bin" | tr -d ' ')
    printf '%b' "\\0$(printf '%03o' $((byte ^ 1)))" |
        dd of="$state_dir/flash.bin" bs=1 seek="$offset" conv=notrunc status=none
}

# ---- the dfu-util side ----------------------------------------------------------------------

# Parses the argument of "-s": address[:length|:leave|...] into dfuse_address, dfuse_length
# and dfuse_leave, with dfu-util's messages for what it would reject.
parse_dfuse_option() {
    local -a parts
    IFS=':' read -r -a parts <<<"$1"
    [[ ${#parts[@]} -gt 0 ]] || die $EX_USAGE "Invalid dfuse address: $1"
    parse_number "${parts[0]}" || die $EX_USAGE "Invalid dfuse address: ${parts[0]}"
    dfuse_address=$number
    local modifier
    for modifier in "${parts[@]:1}"; do
        case $modifier in
        leave) dfuse_leave=1 ;;
        force | mass-erase | unprotect | will-reset) ;;
        *)
            parse_number "$modifier" || die $EX_USAGE "Invalid dfuse modifier: $modifier"
            dfuse_length=$number
            ;;
        esac
    done
}

# Sets region_file, region_base, region_size for the alternate setting.
select_region() {
    case $alt in
    0) region_file="$state_dir/flash.bin" region_base=$flash_base region_size=$flash_size ;;
    2) region_file="$state_dir/otp.bin" region_base=$otp_base region_size=$otp_size ;;
    "") die $EX_USAGE "simulator: no alternate setting given (-a)" ;;
    *) die $EX_IOERR "Cannot set alternate interface: the simulated unit offers only alt 0 and 2" ;;
    esac
}

# Whether -d selects the unit: the vendor alone, vendor and product, or the DFU-mode ids after a comma.
vendor_matches() {
    case $vendor in
    "" | 0483 | 0483:df11 | ,0483 | ,0483:df11 | 0483,0483:df11 | 0483:df11,0483:df11) return 0 ;;
    *) return 1 ;;
    esac
}

# The device dfu-util would open for an upload or download: exactly one must be attached.
open_unit() {
    attached_serials
    vendor_matches || attached=()
    ((${#attached[@]} > 0)) || die $EX_IOERR "No DFU capable USB device available"
    ((${#attached[@]} == 1)) ||
        die $EX_IOERR "More than one DFU capable USB device found! Try \`--list' and specify the serial number or disconnect all but one device"
    echo "Opening DFU capable USB device..."
    echo "ID 0483:df11"
    echo "Run-time device DFU version 011a"
    echo "Claiming USB DFU Interface..."
    echo "Setting Alternate Setting #$alt ..."
    echo "Determining device status: state = dfuIDLE, status = 0"
    echo "dfuIDLE, continuing"
    echo "DFU mode device DFU version 011a"
    echo "Device returned transfer size 2048"
}

alt_names=("@Internal Flash  /0x08000000/04*016Kg,01*064Kg,07*128Kg"
    "@Option Bytes  /0x1FFFC000/01*016 e"
    "@OTP Memory /0x1FFF7800/01*512 e,01*016 e"
    "@Device Feature/0xFFFF0000/01*004 e")

do_list() {
    banner
    attached_serials
    vendor_matches || return 0
    sleep_ms "$(duration_ms 150)"
    local unit=0 serial a lines
    for serial in "${attached[@]}"; do
        lines=0
        # dfu-util lists the alternate settings from the last to the first.
        for a in 3 2 1 0; do
            ((lines < LISTING_LINES)) || break
            printf 'Found DFU: [0483:df11] ver=2200, devnum=%d, cfg=1, intf=0, path="1-2.%d", alt=%d, name="%s", serial="%s"\n' \
                $((7 + unit)) $((4 + unit)) "$a" "${alt_names[$a]}" "$serial"
            lines=$((lines + 1))
        done
        unit=$((unit + 1))
    done
}

do_upload() {
    [[ -n $upload_file ]] || die $EX_USAGE "simulator: $command_word needs -U FILE"
    [[ -n $dfuse_address ]] || die $EX_USAGE "simulator: $command_word needs -s ADDRESS:LENGTH"
    ((dfuse_length > 0)) || die $EX_USAGE "simulator: upload needs a length after the colon of -s"
    banner
    select_region
    local offset=$((dfuse_address - region_base))
    if ((offset < 0 || offset + dfuse_length > region_size)); then
        die $EX_USAGE "$(printf 'Address 0x%08x (%d bytes) lies outside the memory of alt %d' \
            "$dfuse_address" "$dfuse_length" "$alt")"
    fi
    open_unit
    # dfu-util creates the file exclusively, and only after the device was opened.
    if ! (set -o noclobber && : >"$upload_file") 2>/dev/null; then
        if [[ -e $upload_file ]]; then
            die $EX_CANTCREAT "Cannot open file $upload_file for writing: File exists"
        fi
        die $EX_CANTCREAT "Cannot open file $upload_file for writing: No such file or directory"
    fi
    if ((alt == 0)); then
        echo 'DfuSe interface name: "Internal Flash  "'
    else
        echo 'DfuSe interface name: "OTP Memory "'
    fi
    local ms
    ms=$(duration_ms $((200 + dfuse_length / 100)))
    if { ((alt == 2 && FAIL_UPLOAD_OTP)) || ((alt == 0 && FAIL_UPLOAD_FW)); }; then
        sleep_ms $((ms / 2))
        die $EX_IOERR "Error during upload"
    fi
    progress Upload "$dfuse_length" "$ms"
    if ! dd if="$region_file" of="$upload_file" bs=65536 iflag=skip_bytes,count_bytes \
        skip="$offset" count="$dfuse_length" status=none; then
        die $EX_IOERR "Cannot write file $upload_file"
    fi
    echo "Upload done."
    leave_if_asked
}

# Erases the sectors that [start, end) touches and writes the file at start, like the
# bootloader: erase to 0xFF, then program. Optionally stops half-way.
program_flash() {
    local file=$1 start=$2 size=$3 write_bytes=$4 erase_from=0 erase_to=0 end prev=0 sector_end
    end=$((start + size))
    for sector_end in "${sector_ends[@]}"; do
        if ((sector_end > start && prev < end)); then
            ((erase_to == 0)) && erase_from=$prev
            erase_to=$sector_end
        fi
        prev=$sector_end
    done
    local tmp
    tmp=$(mktemp "$state_dir/.flash.XXXXXX") || die $EX_IOERR "simulator: cannot write $state_dir"
    if ! {
        head -c "$erase_from" "$state_dir/flash.bin" &&
            erased $((start - erase_from)) &&
            head -c "$write_bytes" "$file" &&
            erased $((erase_to - start - write_bytes)) &&
            tail -c +$((erase_to + 1)) "$state_dir/flash.bin"
    } >"$tmp" || ! mv -f "$tmp" "$state_dir/flash.bin"; then
        rm -f "$tmp"
        die $EX_IOERR "simulator: cannot write $state_dir/flash.bin"
    fi
}

do_download() {
    [[ -n $download_file ]] || die $EX_USAGE "simulator: download_FW needs -D FILE"
    banner
    [[ -f $download_file && -r $download_file ]] ||
        die $EX_NOINPUT "Could not open file $download_file for reading: No such file or directory"
    local size
    size=$(stat -c %s "$download_file")
    ((size > 0)) || die $EX_NOINPUT "File $download_file is empty"
    if [[ $(head -c 5 "$download_file") == DfuSe ]]; then
        [[ -z $dfuse_address ]] ||
            die $EX_USAGE "This is a DfuSe file, not meant for raw download"
        die $EX_SOFTWARE "simulator: only raw images are simulated; give the .bin file with -s"
    fi
    [[ -n $dfuse_address ]] || die $EX_USAGE "simulator: a raw download needs -s ADDRESS[:leave]"
    ((alt == 0)) || die $EX_IOERR "simulator: only alt 0 (internal flash) takes a download"
    echo "dfu-util: Invalid DFU suffix signature" >&2
    echo "dfu-util: A valid DFU suffix will be required in a future dfu-util release!!!" >&2
    select_region
    open_unit
    echo 'DfuSe interface name: "Internal Flash  "'
    local start=$((dfuse_address - flash_base))
    if ((start < 0 || start + size > flash_size)); then
        die $EX_IOERR "$(printf 'Last page at 0x%08x is not writeable' $((dfuse_address + size - 1)))"
    fi
    printf 'Downloading to address = 0x%08x, size = %d\n' "$dfuse_address" "$size"
    local ms
    ms=$(duration_ms $((1000 + size / 24)))
    if ((FAIL_DOWNLOAD)); then
        # Erased and half written when the transfer breaks off; the unit stays in DFU mode.
        progress "Erase   " "$size" $((ms / 4))
        program_flash "$download_file" "$start" "$size" $((size / 2))
        sleep_ms $((ms / 4))
        die $EX_IOERR "Error during download"
    fi
    # As on a unit: the erase takes about a sixth of the transfer, the writing the rest.
    progress "Erase   " "$size" $((ms / 6))
    progress Download "$size" $((ms - ms / 6))
    program_flash "$download_file" "$start" "$size" "$size"
    if ((CORRUPT_WRITES)); then
        corrupt_byte $((start + size - 1))
    fi
    echo "Download done."
    echo "File downloaded successfully"
    leave_if_asked
}

# ":leave" after a transfer: the unit starts its firmware and comes back in its bootloader a
# moment later.
leave_if_asked() {
    ((dfuse_leave)) || return 0
    echo "Submitting leave request..."
    echo "Transitioning to dfuMANIFEST state"
    local absent=$ABSENT_MS
    if [[ ${LUMAXIS_SIMULATOR_ABSENT_MS:-} =~ ^[0-9]{1,7}$ ]]; then
        absent=$LUMAXIS_SIMULATOR_ABSENT_MS
    elif ((fast)); then
        absent=$((ABSENT_MS * 15 / 100))
    fi
    echo $(($(now_ms) + absent)) | replace_state_file absent_until || exit
}

# ---- arguments ------------------------------------------------------------------------------

# Usage: dfu-util_simulator.sh --dfu-util-command WORD [--fast-progress] [dfu-util options]
#   WORD: version, list, upload_OTP, upload_FW, download_FW, setup_prepared_config NAME,
#         unplug, plug [SERIAL] (the last two pull or attach the simulated cable).
# The unit lives in a state folder ($LUMAXIS_SIMULATOR_STATE, by default
# lumaxis-upgrade/simulator-state in $XDG_RUNTIME_DIR, or in the cache folder ~/.cache without one):
# its scenario settings, its flash and OTP contents, and whether it is attached. Prepared
# scenarios are in configs/, the images they name in images/. "--fast-progress" or
# LUMAXIS_SIMULATOR_FAST=1 makes every command near-instant; LUMAXIS_SIMULATOR_ABSENT_MS sets how
# long the unit stays away after a download that ends with "leave".

command_word="" fast=0 vendor="" alt="" upload_file="" download_file="" list_flag=0
dfuse_address="" dfuse_length=0 dfuse_leave=0 positional=()
[[ ${LUMAXIS_SIMULATOR_FAST:-0} == 1 ]] && fast=1

need_value() {
    (($2 >= 2)) || die $EX_USAGE "option requires an argument -- '${1#-}'
Try \`dfu-util --help' for more information."
}

while (($# > 0)); do
    case $1 in
    --dfu-util-command)
        need_value "$1" $#
        command_word=$2
        shift 2
        ;;
    --fast-progress)
        fast=1
        shift
        ;;
    -d | -a | -s | -U | -D)
        need_value "$1" $#
        case $1 in
        -d) vendor=$2 ;;
        -a)
            [[ $2 =~ ^[0-9]{1,3}$ ]] || die $EX_USAGE "simulator: alternate setting '$2' is not a number"
            alt=$((10#$2))
            ;;
        -s) parse_dfuse_option "$2" ;;
        -U) upload_file=$2 ;;
        -D) download_file=$2 ;;
        esac
        shift 2
        ;;
    -l)
        list_flag=1
        shift
        ;;
    -V) shift ;;
    --*) die $EX_USAGE "unrecognized option '$1'
Try \`dfu-util --help' for more information." ;;
    -*) die $EX_USAGE "invalid option -- '${1#-}'
Try \`dfu-util --help' for more information." ;;
    *)
        positional+=("$1")
        shift
        ;;
    esac
done

if [[ $command_word != setup_prepared_config && $command_word != plug ]] &&
    ((${#positional[@]} > 0)); then
    die $EX_USAGE "unexpected argument '${positional[0]}'"
fi

case $command_word in
version)
    banner
    ;;
list)
    ((list_flag)) || die $EX_USAGE "simulator: list needs -l"
    load_state
    do_list
    ;;
upload_OTP | upload_FW)
    load_state
    do_upload
    ;;
download_FW)
    load_state
    do_download
    ;;
setup_prepared_config)
    ((${#positional[@]} == 1)) || die $EX_USAGE "simulator: setup_prepared_config needs one NAME"
    setup_prepared_config "${positional[0]}"
    ;;
unplug)
    load_state
    : | replace_state_file unplugged || exit
    ;;
plug)
    load_state
    ((${#positional[@]} <= 1)) || die $EX_USAGE "simulator: plug takes at most one SERIAL"
    if ((${#positional[@]} == 1)); then
        [[ ${positional[0]} =~ ^[0-9A-Fa-f]+$ ]] ||
            die $EX_USAGE "simulator: serial '${positional[0]}' is not hexadecimal"
        SERIALS=${positional[0]}
        write_settings | replace_state_file settings || exit
    fi
    rm -f "$state_dir/unplugged" "$state_dir/absent_until"
    ;;
"") die $EX_USAGE "simulator: --dfu-util-command WORD is missing" ;;
*) die $EX_USAGE "simulator: unknown command word '$command_word'" ;;
esac
exit 0
