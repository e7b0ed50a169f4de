run() { docker run -d --stop-signal KILL --name $1 box /bin/sh -c "$2"; }
run busy 'while :; do :; done'
run store 'while :; do echo uptime_in_seconds:77 | busybox nc -l -p 6379; done'
run idle 'exec busybox sleep 1000'
run stopped 'exit 0'
docker pause idle
