# Completion of qzpfile for bash.
_qzpfile() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]}
  local raw='--raw --page-size --header-size' io='--io --block-size --buffers'
  local result='--format --quiet' options
  COMPREPLY=()
  # Bash splits "--io=d" into three words.
  [ "$prev" != = ] || prev=${COMP_WORDS[COMP_CWORD - 2]}
  [ "$cur" != = ] || cur=
  case $prev in
    --io) mapfile -t COMPREPLY < <(compgen -W 'auto buffered direct block' -- "$cur"); return ;;
    --format) mapfile -t COMPREPLY < <(compgen -W 'text json' -- "$cur"); return ;;
    --format-version) mapfile -t COMPREPLY < <(compgen -W '1 2' -- "$cur"); return ;;
    --progress) mapfile -t COMPREPLY < <(compgen -W 'auto always never' -- "$cur"); return ;;
    --page-size | --header-size | --block-size)
      mapfile -t COMPREPLY < <(compgen -W '512 4K 16K 64K 1M 4M' -- "$cur"); return ;;
    --sparse) mapfile -t COMPREPLY < <(compgen -W 'auto never' -- "$cur"); return ;;
    --buffers | --pages) return ;;
    help)
      mapfile -t COMPREPLY < <(compgen -W 'pack unpack info cat dump put truncate header copy
        compare verify repair bench trace rm' -- "$cur")
      return
      ;;
  esac
  if [ "$COMP_CWORD" -eq 1 ]; then
    mapfile -t COMPREPLY < <(compgen -W 'pack unpack info cat dump put truncate header copy compare
      verify repair bench trace rm help --help --version' -- "$cur")
    return
  fi
  case $command in
    pack) options="--page-size --header-size --format-version $io --force --progress $result" ;;
    unpack) options="$io --force --keep-going --sparse --progress $result" ;;
    info) options="$raw $io --map --progress --format" ;;
    cat) options="$raw $io --pages --keep-going --sparse --progress" ;;
    dump) options="$raw $io --pages --keep-going" ;;
    put) options="$raw $io --append --progress $result" ;;
    truncate) options="$raw $io $result" ;;
    header) options="$raw --set $result" ;;
    copy) options="$raw --format-version $io --force --keep-going --sparse --progress $result" ;;
    compare) options="$raw $io --keep-going --progress $result" ;;
    verify) options="$raw --io --block-size --every-mode --map --keep-going --progress $result" ;;
    repair) options="--dry-run --yes --progress $result" ;;
    bench) options="$raw --block-size --format --progress" ;;
    trace) options="--format" ;;
    rm) options="$raw $result" ;;
    *) return ;;
  esac
  case $cur in
    -*) mapfile -t COMPREPLY < <(compgen -W "$options --module --verbose --help" -- "$cur") ;;
    *)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      ;;
  esac
}
complete -F _qzpfile qzpfile
