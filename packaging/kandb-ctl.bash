# Bash completion of kandb-ctl: commands, their options, and the files and directories that they read.

_kandb_ctl() {
  local global="--server --timeout-ms --attempts --json --help --version"
  local range="--start-key --end-key --conf-version --version --peer --stdin"
  local word command="" sub="" skip="" candidates="" current=${COMP_WORDS[COMP_CWORD]}
  local previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()

  # The command, and the sub-command of those that have one: the first words that are neither an option nor
  # the value of one.
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $word in
      --json | --help | --version | --stdin | --yes | --keep | --force | --live | --copy | --no-verify) skip= ;;
      --*) skip=1 ;;
      = | :) skip=1 ;; # bash splits --name=value and host:port at these
      *)
        if [[ $skip ]]; then
          skip=
        elif [[ ! $command ]]; then
          command=$word
        elif [[ ! $sub ]]; then
          sub=$word
        fi
        ;;
    esac
  done

  case $previous in
    --out | --since | --passphrase-file)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    --json | --help | --version | --stdin | --yes | --keep | --force | --live | --copy | --no-verify) ;;
    --*) return ;; # its value has no candidates
  esac

  case $command in
    "") candidates="tso alloc-id bootstrap region heartbeat ping health metrics top load state wal table manifest report
      backup restore salvage" ;;
    tso | alloc-id) candidates="--count" ;;
    bootstrap) candidates="--store-id --store-address --region-id $range" ;;
    ping) candidates="--count --interval-ms" ;;
    health | metrics)
      candidates="--data-dir --max-call-ms --max-clock-ms --min-free-mib --max-wal-mib --max-wals --max-tables"
      candidates+=" --max-leftovers --max-descriptors"
      [[ $command == health ]] && candidates+=" --wait" || candidates+=" --textfile --voters"
      ;;
    top) candidates="--data-dir --interval-ms --count --voters" ;;
    load)
      candidates="--connections --seconds --regions --yes --keep"
      [[ $sub ]] || candidates+=" tso alloc-id get-region upsert-region heartbeat remove-regions"
      ;;
    region)
      case $sub in
        "") candidates="get list upsert remove" ;;
        list) candidates="--start-key --limit" ;;
        upsert) candidates="--id $range --force" ;;
      esac
      ;;
    state)
      candidates="summary dump verify regions stores"
      [[ ! $sub ]] || candidates="--live --id --passphrase-file"
      [[ $sub != regions ]] || candidates+=" --key --voters --learners"
      ;;
    wal | table) candidates="--passphrase-file" ;;
    report) candidates="--out --live --passphrase-file" ;;
    backup) candidates="--out --since --copy --no-verify --passphrase-file" ;;
    restore) candidates="--skip-ids --passphrase-file" ;;
    salvage) candidates="--out --skip-ids --passphrase-file" ;;
  esac
  # Options are offered after a dash, and where nothing else is possible.
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$candidates $global" -- "$current")
    return
  fi
  case $command/$sub in
    state/?* | report/* | backup/* | restore/* | salvage/*)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      ;;
    wal/* | table/* | manifest/*)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$current") ;;
  esac
}
complete -F _kandb_ctl kandb-ctl
