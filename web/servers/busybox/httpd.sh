#!/bin/sh
# Starts busybox httpd in the foreground for tzr4417.cgi:
#   httpd.sh ADDRESS:PORT DOCUMENT-ROOT [CONFIGURATION]
# DOCUMENT-ROOT holds cgi-bin/tzr4417.cgi; CONFIGURATION defaults to the
# httpd.conf beside this script.
set -eu
conf=${3:-$(dirname "$0")/httpd.conf}
# busybox httpd has no request size limit and passes its environment on to
# the program, whose own guard then refuses a larger body before cgicc sets
# memory aside for it.
CGICC_MAX_CONTENTLENGTH=16384 exec busybox httpd -f -p "$1" -h "$2" -c "$conf"
