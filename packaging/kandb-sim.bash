# Bash completion of kandb-sim: its options, and the program to start.

_kandb_sim() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  # bash splits an option and its value at this sign
  [[ $current != = ]] || current=
  [[ $previous != = ]] || previous=${COMP_WORDS[COMP_CWORD - 2]}
  case $previous in
    --spawn)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    --help) ;;
    --*) return ;; # its value has no candidates
  esac
  mapfile -t COMPREPLY < <(compgen -W "--help --spawn --server --stores --regions --target-replicas --rounds
    --quiet-rounds --interval-ms --splits --merges --failures --down-rounds --catch-up-rounds --transfers --lookups
    --walk --measure-ms --reconnect-ms --connections --threads --seed" -- "$current")
}
complete -F _kandb_sim kandb-sim
