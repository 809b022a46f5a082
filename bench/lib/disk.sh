# What the disk can do by itself.

file_system() { # FOLDER
  df --output=fstype "$1" | tail -1
}

# Durability is worth comparing on a file system that journals; others answer at once, or after much else.
need_ext4() {
  [[ $(file_system "$disk") == ext4 ]] || { fail "this row needs ext4, and $disk is on $(file_system "$disk"); see --folder"; return 1; }
}

# Lets what earlier runs have written reach the disk, so that the next run does not pay for it.
settle() {
  sync -f "$disk"
}

# One thread that writes 4 KiB and calls fdatasync, over and over. Prints a record.
run_fio() {
  local line
  settle
  line=$(fio --name=flush --filename="$disk/fio" --size=256m --rw=write --bs=4k --ioengine=psync --fdatasync=1 \
    --time_based --runtime="$seconds" --output-format=terse --terse-version=3) || { fail "fio failed: $line"; return 1; }
  # Fields of fio's terse format: 49 is the rate of writes. What a write and its flush take together follows from it.
  cut -d';' -f49 <<<"$line" | awk '$1 > 0 {printf "rate=%.1f\n", $1; good = 1} END {exit !good}'
}

# 1 GiB written at once, with one wait for the disk at the end. Prints a record.
run_dd() {
  local begin end
  settle
  begin=$EPOCHREALTIME
  dd if=/dev/zero of="$disk/dd" bs=1M count=1024 conv=fdatasync status=none
  end=$EPOCHREALTIME
  rm -f "$disk/dd"
  awk -v begin="$begin" -v end="$end" 'BEGIN {printf "rate=%.3f mib=%.1f\n", 1 / (end - begin), 1024 / (end - begin)}'
}
