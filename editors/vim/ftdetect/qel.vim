" Qel scripts: *.qel files, and files whose first line runs qel.
autocmd BufNewFile,BufRead *.qel setfiletype qel
autocmd BufNewFile,BufRead * if getline(1) =~# '^#!.*\<qel\>' | setfiletype qel | endif
