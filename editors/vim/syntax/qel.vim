" Vim syntax file
" Language:   Qel
" Filenames:  *.qel
"
" The groups filled with "syn keyword" are exactly the scanner's keywords, except
" qelBuiltin and qelStream, which are the built-in functions and streams of every
" machine; tests/unit/editors_test.cpp checks both lists.

if exists("b:current_syntax")
  finish
endif

let s:cpo_save = &cpo
set cpo&vim

" Keywords.
syn keyword qelConditional  if else
syn keyword qelRepeat       while do for
syn keyword qelStatement    break continue return
syn keyword qelStorage      class static
syn keyword qelOperatorWord new delete
syn keyword qelConstant     nil null
syn keyword qelDebug        TRON TROFF TRSTEP

" Built-in functions and streams.
syn keyword qelBuiltin newvector newstring newbuffer newcbuffer
syn keyword qelBuiltin fopen fclose feof getc putc gets fgets fputs print freadval fwriteval
syn keyword qelBuiltin fread fwrite getwc putwc fgetws fputws
syn keyword qelBuiltin strlen strcmp stricmp strsplit strfind strerase strinsert strreplace substr
syn keyword qelBuiltin vecsize size Vec T CBuf compile loadmodule
syn keyword qelBuiltin int float double string buffer gettypename gettype getclassname dynamic_cast
syn keyword qelBuiltin time timer sin cos tan atan sqrt log exp abs pow
syn keyword qelBuiltin rand srand ctime localtime getargs getusrargs argcnt arg addr getenv setenv
syn keyword qelBuiltin LoadLibrary FreeLibrary GetProcAddress CallLibFunc
syn keyword qelBuiltin newdict dictcontains dicterase dictclear dictgetkeys dictgetvalues
syn keyword qelStream  stdin stdout stderr

" Names with a meaning of their own: "this", the operator methods, base-class sends.
syn match qelThis           "\<this\>"
syn match qelOperatorMethod "\<OP_\(ADD\|SUB\|MUL\|DIV\|REM\|BAND\|BOR\|XOR\|SHL\|SHR\)\(_R\)\=\>"
syn match qelOperatorMethod "\<\(OP_\(NEG\|BNOT\|INC\|DEC\|VREF\|VSET\|CALL\)\|compare\|toString\|dtor\)\>"
syn match qelBaseCall       "\<BC_\w\+"

" Class declarations and definitions (definitions start in the first column).
syn match qelClassName "\(\<class\s\+\)\@<=\h\w*"
syn match qelClassName "\(\<class\s\+\h\w*\s*:\s*\)\@<=\h\w*"
syn match qelFunction  "^\h\w*\ze\s*("
syn match qelFunction  "^\h\w*\s*::\s*\~\=\s*\h\w*\ze\s*("

" Numbers: hexadecimal, floating, decimal and octal.
syn match qelNumber "\<\d\+\>"
syn match qelNumber "\<0[xX]\x*"
syn match qelFloat  "\<\d\+\.\d*\([eE][-+]\=\d*\)\="
syn match qelFloat  "\<\d\+[eE][-+]\=\d*"

" Strings and characters; a backslash and digits is a numeric escape in any base.
syn match  qelEscape    contained "\\\(0[xX]\x*\|\d\+\|.\)"
syn region qelString    start=+"+ skip=+\\\\\|\\"+ end=+"+ contains=qelEscape,@Spell
syn match  qelCharacter "'\(\\\(0[xX]\x*\|\d\+\|.\)\|[^\\]\)'" contains=qelEscape

" Operators.
syn match qelOperator "=>\|->\|::\|[-+*/%&|^~!<>=?:]"

" Comments: //, /* */, @ and #! to the end of the line.
syn match  qelTodo contained "\<\(TODO\|FIXME\|XXX\)\>"
syn region qelComment start="/\*" end="\*/" contains=qelTodo,@Spell
syn match  qelComment "//.*$" contains=qelTodo,@Spell
syn match  qelComment "@.*$" contains=qelTodo,@Spell
syn match  qelComment "#!.*$"

" Preprocessor lines; nothing after #endsrc is read.
syn match  qelPreProc  "^\s*#\s*\(include\|use\|import\|defvar\)\>" nextgroup=qelIncluded skipwhite
syn match  qelIncluded contained "<[^>]*>"
syn region qelEndsrc   matchgroup=qelPreProc start="^\s*#\s*endsrc\>" end="\%$"

hi def link qelConditional    Conditional
hi def link qelRepeat         Repeat
hi def link qelStatement      Statement
hi def link qelStorage        StorageClass
hi def link qelOperatorWord   Statement
hi def link qelConstant       Constant
hi def link qelDebug          Debug
hi def link qelBuiltin        Function
hi def link qelStream         Identifier
hi def link qelThis           Identifier
hi def link qelOperatorMethod Special
hi def link qelBaseCall       Special
hi def link qelClassName      Type
hi def link qelFunction       Function
hi def link qelNumber         Number
hi def link qelFloat          Float
hi def link qelEscape         SpecialChar
hi def link qelString         String
hi def link qelCharacter      Character
hi def link qelOperator       Operator
hi def link qelTodo           Todo
hi def link qelComment        Comment
hi def link qelEndsrc         Comment
hi def link qelPreProc        PreProc
hi def link qelIncluded       String

let b:current_syntax = "qel"

let &cpo = s:cpo_save
unlet s:cpo_save
