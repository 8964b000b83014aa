# Completions of mireltoken for bash.
# Written by packaging/completions/generate.py; changes belong there.

_mireltoken() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev="" command="" options word words=0 i
  COMPREPLY=()
  # What stands before the word, in the words of bash: --in=FILE is three of them.
  [ "$COMP_CWORD" -gt 0 ] && prev=${COMP_WORDS[COMP_CWORD - 1]}
  if [ "$cur" = = ]; then
    cur=""
  elif [ "$prev" = = ] && [ "$COMP_CWORD" -gt 1 ]; then
    prev=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    case $word in
      --module|--trace|--replay|--out|--pin-file|--in|--html|--bundle|--junit|--home|--reader|--timeout|--key|--pin-fd|--exec|--for|--algorithm)
        [ "${COMP_WORDS[i + 1]}" != = ] || i=$((i + 1))
        i=$((i + 1)) ;;
      record) [ -n "$command" ] || command=record ;;
      readers|items|certificate|algorithms|login|sign|decrypt|exchange|doctor|conformance|watch|explain|trace|help)
        case $command in ""|record) command=$word ;; *) words=$((words + 1)) ;; esac ;;
      [!-]*) words=$((words + 1)) ;;
    esac
  done

  case $prev in
    --module|--trace|--replay|--out|--pin-file|--in|--html|--bundle|--junit)
      _mireltoken_paths -f "$cur"; return ;;
    --home)
      _mireltoken_paths -d "$cur"; return ;;
    --algorithm)
      _mireltoken_words 'RSAEncryptionRaw RSASignatureRaw RSASignatureDigestPKCS1v15Raw RSASignatureDigestPKCS1v15SHA1 RSASignatureDigestPKCS1v15SHA224 RSASignatureDigestPKCS1v15SHA256 RSASignatureDigestPKCS1v15SHA384 RSASignatureDigestPKCS1v15SHA512 RSASignatureMessagePKCS1v15SHA1 RSASignatureMessagePKCS1v15SHA224 RSASignatureMessagePKCS1v15SHA256 RSASignatureMessagePKCS1v15SHA384 RSASignatureMessagePKCS1v15SHA512 RSASignatureDigestPSSSHA1 RSASignatureDigestPSSSHA224 RSASignatureDigestPSSSHA256 RSASignatureDigestPSSSHA384 RSASignatureDigestPSSSHA512 RSASignatureMessagePSSSHA1 RSASignatureMessagePSSSHA224 RSASignatureMessagePSSSHA256 RSASignatureMessagePSSSHA384 RSASignatureMessagePSSSHA512 ECDSASignatureRFC4754 ECDSASignatureDigestX962 ECDSASignatureDigestX962SHA1 ECDSASignatureDigestX962SHA224 ECDSASignatureDigestX962SHA256 ECDSASignatureDigestX962SHA384 ECDSASignatureDigestX962SHA512 ECDSASignatureMessageX962SHA1 ECDSASignatureMessageX962SHA224 ECDSASignatureMessageX962SHA256 ECDSASignatureMessageX962SHA384 ECDSASignatureMessageX962SHA512 RSAEncryptionPKCS1 RSAEncryptionOAEPSHA1 RSAEncryptionOAEPSHA224 RSAEncryptionOAEPSHA256 RSAEncryptionOAEPSHA384 RSAEncryptionOAEPSHA512 RSAEncryptionOAEPSHA1AESGCM RSAEncryptionOAEPSHA224AESGCM RSAEncryptionOAEPSHA256AESGCM RSAEncryptionOAEPSHA384AESGCM RSAEncryptionOAEPSHA512AESGCM ECIESEncryptionStandardX963SHA1AESGCM ECIESEncryptionStandardX963SHA224AESGCM ECIESEncryptionStandardX963SHA256AESGCM ECIESEncryptionStandardX963SHA384AESGCM ECIESEncryptionStandardX963SHA512AESGCM ECIESEncryptionCofactorX963SHA1AESGCM ECIESEncryptionCofactorX963SHA224AESGCM ECIESEncryptionCofactorX963SHA256AESGCM ECIESEncryptionCofactorX963SHA384AESGCM ECIESEncryptionCofactorX963SHA512AESGCM ECIESEncryptionStandardVariableIVX963SHA224AESGCM ECIESEncryptionStandardVariableIVX963SHA256AESGCM ECIESEncryptionStandardVariableIVX963SHA384AESGCM ECIESEncryptionStandardVariableIVX963SHA512AESGCM ECIESEncryptionCofactorVariableIVX963SHA224AESGCM ECIESEncryptionCofactorVariableIVX963SHA256AESGCM ECIESEncryptionCofactorVariableIVX963SHA384AESGCM ECIESEncryptionCofactorVariableIVX963SHA512AESGCM ECDHKeyExchangeStandard ECDHKeyExchangeStandardX963SHA1 ECDHKeyExchangeStandardX963SHA224 ECDHKeyExchangeStandardX963SHA256 ECDHKeyExchangeStandardX963SHA384 ECDHKeyExchangeStandardX963SHA512 ECDHKeyExchangeCofactor ECDHKeyExchangeCofactorX963SHA1 ECDHKeyExchangeCofactorX963SHA224 ECDHKeyExchangeCofactorX963SHA256 ECDHKeyExchangeCofactorX963SHA384 ECDHKeyExchangeCofactorX963SHA512' "$cur"; return ;;
    --reader|--timeout|--key|--pin-fd|--exec|--for)
      _mireltoken_words "" "$cur"; return ;;
  esac
  options='--version -h --help --module --home --trust-module --reader --timeout --json --trace --replay -v --verbose'
  case $command in
    certificate) options+=' --key --out' ;;
    algorithms) options+=' --key --all' ;;
    login) options+=' --pin-file --pin-fd --last-try' ;;
    sign) options+=' --key --algorithm --in --out --no-verify --pin-file --pin-fd --last-try' ;;
    decrypt) options+=' --key --algorithm --in --out --pin-file --pin-fd --last-try' ;;
    exchange) options+=' --key --algorithm --in --out --pin-file --pin-fd --last-try' ;;
    doctor) options+=' --login --html --bundle --anonymous --pin-file --pin-fd --last-try' ;;
    conformance) options+=' --login --html --junit --pin-file --pin-fd --last-try' ;;
    watch) options+=' --exec --for' ;;
    record) options+=' --out --anonymous' ;;
    trace) options+=' --failed --slow' ;;
  esac
  case $cur,$command in
    -*) _mireltoken_words "$options" "$cur" ;;
    *,) _mireltoken_words 'readers items certificate algorithms login sign decrypt exchange doctor conformance watch explain record trace help' "$cur" ;;
    *,help) _mireltoken_words 'readers items certificate algorithms login sign decrypt exchange doctor conformance watch explain record trace' "$cur" ;;
    *,record) _mireltoken_words 'readers items certificate algorithms login sign decrypt exchange doctor conformance' "$cur" ;;
    *,explain) _mireltoken_words 'MT-M01 MT-M02 MT-M03 MT-M04 MT-M05 MT-M06 MT-M07 MT-M08 MT-M09 MT-M10 MT-M11 MT-R01 MT-R02 MT-R03 MT-R04 MT-R05 MT-R06 MT-R07 MT-R08 MT-R09 MT-R10 MT-T01 MT-T02 MT-T03 MT-T04 MT-T05 MT-T06 MT-T07 MT-C01 MT-C02 MT-C03 MT-C04 MT-C05 MT-C06 MT-C07 MT-C08 MT-C09 MT-C10 MT-C11 MT-C12 MT-C13 MT-C14 MT-C15 MT-C16 MT-C17 MT-C18 MT-K01 MT-K02 MT-K03 MT-K04 MT-K05 MT-K06 MT-K07 MT-K08 MT-K09 MT-K10 MT-K11 MT-P01 MT-P02 MT-P03 MT-P04 MT-P05 MT-P06 MT-P07 MT-P08 MT-P09 MT-P10 MT-P11 MT-X01 MT-X02 MT-X03 MT-X04 MT-X05 MT-X06 MT-X07 MT-X08 MT-X09 MT-X10 MT-X11 MT-X12' "$cur" ;;
    *,trace)
      case $words in 0) _mireltoken_words show "$cur" ;; *) _mireltoken_paths -f "$cur" ;; esac ;;
    *) _mireltoken_words "" "$cur" ;;
  esac
}

# _mireltoken_words WORDS BEGINNING
_mireltoken_words() {
  COMPREPLY=($(compgen -W "$1" -- "$2"))
  compopt +o default 2>/dev/null  # no files where none can stand
}

# _mireltoken_paths -f|-d BEGINNING
_mireltoken_paths() {
  local name
  while IFS= read -r name; do COMPREPLY+=("$name"); done < <(compgen "$1" -- "$2")
  compopt -o filenames 2>/dev/null
}

complete -o default -F _mireltoken mireltoken
