<%
Function startheaderasp()
  visits = visits + 1
  SaveIniSetting "Framework", "visits", CStr(visits), "tavrel.ini"
  startheaderasp = InStr(Request.ServerVariables("HTTP_USER_AGENT"), "Touch") > 0
End Function
Function CustomHeader(values)
  Set fsg = New PageBuilder
  RESPONSE.WRITE "<title>" & siteTitle & " V" & Version & "</title>"
  response.write "<link rel='stylesheet' href='/" & values(4) & "'></head><body>"
  CustomHeader = fsg.ToString
End Function
%>
